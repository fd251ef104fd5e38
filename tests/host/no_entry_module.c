/* A shared library that is not a module: it exports no "main". */
int fontrix_no_entry_module_marker(void) { return 1; }
