// libuci implementation: being written
