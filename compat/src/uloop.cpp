// uloop implementation: being written
