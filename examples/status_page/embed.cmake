# Writes the FILES of the folder FOLDER into the C++ source OUT, so that the host needs no files
# beside its executable.
set(arrays "")
set(table "")
foreach(name ${FILES})
    file(READ ${FOLDER}/${name} bytes HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(MAKE_C_IDENTIFIER ${name} identifier)
    string(APPEND arrays "const unsigned char ${identifier}[] = {${bytes}};\n")
    string(APPEND table "    {\"${name}\", ${identifier}, sizeof ${identifier}},\n")
endforeach()
file(WRITE ${OUT} "#include \"PageFiles.h\"\n\nnamespace status_page {\n\nnamespace {\n${arrays}}\n\n"
    "const PageFile kPageFiles[] = {\n${table}};\nconst std::size_t kPageFileCount = std::size(kPageFiles);\n\n}\n")
