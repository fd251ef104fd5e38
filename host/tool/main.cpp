#include "host/tool/cli.h"

int main(int argc, char** argv) { return fontrix::host::RunCli(argc, argv); }
