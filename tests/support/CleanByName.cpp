// Reads a name from standard input and calls cleanProcessByName() with it.

#include <iostream>
#include <string>

#include "common/Utils.h"

int main() {
    std::string name;
    std::getline(std::cin, name);
    kel::cleanProcessByName(name);
}
