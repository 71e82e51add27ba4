#include <cstring>
#include <fstream>
#include <iostream>

#include "QVShell.h"

int main(int argc, char** argv) {
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::cout << qv::shell::QVShell::usage();
    return 0;
  }
  if (argc > 2) {
    std::cerr << "usage: qvcore-shell [SCRIPT]   (see qvcore-shell --help)\n";
    return 2;
  }
  qv::shell::QVShell shell;
  if (argc == 2 && std::strcmp(argv[1], "-") != 0) {
    std::ifstream script(argv[1]);
    if (!script) {
      std::cerr << "qvcore-shell: cannot open " << argv[1] << "\n";
      return 2;
    }
    return shell.runScript(script, std::cout, std::cerr);
  }
  return shell.runScript(std::cin, std::cout, std::cerr);
}
