# Never run: written from the tool's documentation (Conan 2). In a copy of the sources:
#   conan create packaging/conan
from pathlib import Path

from conan import ConanFile
from conan.tools.cmake import CMake, cmake_layout
from conan.tools.files import copy


class KelCommon(ConanFile):
    name = "kelcommon"
    version = "1.1.0"
    description = "Shared runtime library of the service processes on an edge host"
    package_type = "shared-library"
    settings = "os", "compiler", "build_type", "arch"
    requires = "poco/[>=1.11 <1.16]", "paho-mqtt-c/[>=1.3.12 <1.4]"
    default_options = {"poco/*:shared": True, "paho-mqtt-c/*:shared": True}
    generators = "CMakeDeps", "CMakeToolchain"

    def export_sources(self):
        root = Path(self.recipe_folder).parents[1]
        for part in "CMakeLists.txt", "CHANGELOG.md", "cmake/*", "src/*", "packaging/*":
            copy(self, part, root, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        self.cpp_info.libs = ["KelCommon"]
        self.cpp_info.includedirs = ["include/KelCommon"]
