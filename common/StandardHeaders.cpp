// Nothing: the file that the precompiled headers belong to.
