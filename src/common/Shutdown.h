#pragma once

// The earlier name of the header that declares stopLibrary().
#include "Library.h"
