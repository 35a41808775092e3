# Writes the file PAGE as a C++ array to OUT: the host needs no files beside its executable.
file(READ ${PAGE} bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
file(WRITE ${OUT} "#include \"StatusPage.h\"\n\n"
    "const unsigned char kStatusPage[] = {${bytes}};\n"
    "const std::size_t kStatusPageSize = sizeof kStatusPage;\n")
