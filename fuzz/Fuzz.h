#pragma once

// What the fuzz targets share. A target is one function that gets arbitrary bytes; it must return,
// and whatever it finds wrong ends the process. With libFuzzer it is fed mutations of its corpus,
// with PlainMain.cpp the files of the corpus as they are.

#include <Poco/AutoPtr.h>
#include <Poco/Environment.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline void check(bool right, const char* what) {
    if (right) return;
    std::fprintf(stderr, "wrong: %s\n", what);
    std::abort();
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Home folders of the process's own, and lines that are formatted and then dropped.
struct Surroundings {
    Surroundings() {
        for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) {
            Poco::Environment::set(name, home.path.string());
        }
        Poco::Logger::root().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    }
    TempFolder home;
};

}  // namespace fuzz
