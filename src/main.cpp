// cvml: runs one page per process, as a CGI program or from a shell.
#include "program/startup.h"

int main(int argc, char** argv, char** envp) { return cvml_main(argc, argv, envp); }
