/* Build options of libuci; none are set in this build. */
/* #undef UCI_DEBUG */
/* #undef UCI_DEBUG_TYPECAST */
