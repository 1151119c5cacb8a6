# Where the system's loader finds the library, a program's own search path has no place.
file(RPATH_REMOVE FILE ${PROGRAM})
