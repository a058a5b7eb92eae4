// headers.cpp - nothing of its own: the precompiled headers that all test programs share belong to it.
