// The object that carries the test programs' precompiled header.
