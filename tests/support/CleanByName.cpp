// Calls cleanProcessByName() with what it reads from the pipe argv[1].

#include <fstream>
#include <iterator>

#include "common/Utils.h"

int main(int, char** argv) {
    std::ifstream name(argv[1]);
    kel::cleanProcessByName({std::istreambuf_iterator<char>(name), {}});
}
