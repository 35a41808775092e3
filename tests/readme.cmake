# The README shows PROGRAM as it stands, so that what a newcomer copies compiles.
file(READ ${README} readme)
file(READ ${PROGRAM} program)
string(FIND "${readme}" "${program}" position)
if(position EQUAL -1)
    message(FATAL_ERROR "${README} does not show ${PROGRAM}")
endif()
