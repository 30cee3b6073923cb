"""What varnic_generate() says of mistakes, and which files it takes for a service's. CMake only reads
the project here: nothing is generated."""

import os
import pathlib
import subprocess
import tempfile
import unittest

MODULE = pathlib.Path(os.environ["VARNIC_SOURCE_DIR"]) / "cmake" / "VarnicGenerate.cmake"

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(mistakes LANGUAGES NONE)
set(CMAKE_CXX_COMPILER_LOADED {has_cxx})  # Finding one would take long.
include("{module}")
add_executable(protobuf::protoc IMPORTED)
add_library(t STATIC)
{calls}
get_target_property(sources t SOURCES)
message(FATAL_ERROR "sources: ${{sources}}")  # It has no compiler, so this is as far as it gets.
"""


class VarnicGenerateTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        # As CMake names it.
        self.folder = pathlib.Path(folder.name).resolve()
        self.write("a.proto", "message A {}")

    def write(self, name, text):
        file = self.folder / name
        file.parent.mkdir(exist_ok=True)
        file.write_text(text)

    def configure(self, calls, has_cxx=1):
        """What CMake says, without its line breaks."""
        self.write("CMakeLists.txt", PROJECT.format(module=MODULE, calls=calls, has_cxx=has_cxx))
        result = subprocess.run(
            ["cmake", "-S", self.folder, "-B", self.folder / "build"],
            capture_output=True, text=True, check=False,
        )
        return " ".join(result.stderr.split())

    def assert_is_service(self, proto, expected):
        self.write("x.proto", proto)
        said = self.configure("varnic_generate(TARGET t PROTOS x.proto)")
        self.assertIn("x.pb.cc", said)
        self.assertEqual("x.rpc.cc" in said, expected, said)
        self.assertEqual("x.client.cc" in said, expected, said)

    def test_missing_proto_is_named_with_its_path(self):
        said = self.configure("varnic_generate(TARGET t PROTOS a.proto b/none.proto)")

        self.assertIn(f"there is no proto file {self.folder}/b/none.proto", said)

    def test_unknown_part_is_named_beside_those_that_there_are(self):
        said = self.configure("varnic_generate(TARGET t PROTOS a.proto PARTS messages skeletons)")

        self.assertIn("no PARTS are called skeletons; there are messages, skeleton and client", said)

    def test_unknown_argument_is_named(self):
        said = self.configure("varnic_generate(TARGET t FILES a.proto)")

        self.assertIn("what is FILES;a.proto?", said)

    def test_unknown_target_is_named(self):
        said = self.configure("varnic_generate(TARGET nobody PROTOS a.proto)")

        self.assertIn("varnic_generate(TARGET nobody): there is no such target", said)

    def test_target_of_another_folder_is_refused(self):
        self.write("below/CMakeLists.txt", "varnic_generate(TARGET t PROTOS ../a.proto)")

        said = self.configure("add_subdirectory(below)")

        self.assertIn(f"the target is made in {self.folder}, so call this there", said)

    def test_interface_library_is_refused(self):
        said = self.configure(
            "add_library(i INTERFACE)\nvarnic_generate(TARGET i PROTOS a.proto)")

        self.assertIn("an INTERFACE library compiles nothing", said)

    def test_call_without_protos_is_refused(self):
        said = self.configure("varnic_generate(TARGET t PARTS messages)")

        self.assertIn("PROTOS names no file", said)

    def test_missing_import_folder_is_named(self):
        said = self.configure("varnic_generate(TARGET t PROTOS a.proto IMPORT_DIRS none)")

        self.assertIn(f"there is no folder {self.folder}/none to import from", said)

    def test_proto_outside_its_import_root_is_refused(self):
        self.write("below/b.proto", "message B {}")

        said = self.configure("varnic_generate(TARGET t PROTOS ../a.proto IMPORT_ROOT below)")

        self.assertIn(f"{self.folder}/a.proto is not below the import root", said)

    def test_proto_whose_name_breaks_build_files_is_refused(self):
        for name in ["sub dir/b.proto", "b$c.proto", "b#.proto", "b:c.proto", "b.txt"]:
            self.write(name, "message B {}")

            said = self.configure(f"varnic_generate(TARGET t PROTOS [[{name}]])")

            self.assertIn(f"varnic_generate(TARGET t): the name {name} cannot stand in a build file",
                          said)

    def test_import_root_may_have_a_space(self):
        self.write("sub dir/b.proto", "message B {}")

        said = self.configure("varnic_generate(TARGET t PROTOS b.proto IMPORT_ROOT [[sub dir]])")

        self.assertIn("generated/t/messages/b.pb.cc", said)

    def test_project_without_cxx_is_refused(self):
        said = self.configure("varnic_generate(TARGET t PROTOS a.proto)", has_cxx=0)

        self.assertIn("the project has no C++; add CXX to the LANGUAGES of its project()", said)

    def test_parts_that_are_named_are_all_that_is_generated(self):
        self.write("x.proto", "service S {}")

        said = self.configure("varnic_generate(TARGET t PROTOS x.proto PARTS client)")

        self.assertIn("x.client.cc", said)
        self.assertNotIn("x.pb.cc", said)
        self.assertNotIn("x.rpc.cc", said)

    def test_targets_of_one_folder_generate_the_same_proto_apart(self):
        said = self.configure(
            "add_library(u STATIC)\nvarnic_generate(TARGET u PROTOS a.proto)\n"
            "varnic_generate(TARGET t PROTOS a.proto)")

        self.assertIn("generated/t/messages/a.pb.cc", said)
        self.assertNotIn("generated/u", said)

    def test_file_that_declares_a_service_has_a_skeleton_and_a_client(self):
        self.assert_is_service('syntax = "proto3";package p;service S{}', True)
        self.assert_is_service("/* * */ service\n  S // its end\n {\n}", True)

    def test_file_that_only_speaks_of_a_service_has_neither(self):
        self.assert_is_service("// service S {\nmessage M {}", False)
        self.assert_is_service("/* On:\nservice S {\n**/ message service {}", False)
        self.assert_is_service('option x = "service S {";', False)
        self.assert_is_service(r'option x = "\" service S {";', False)
        self.assert_is_service(r"option x = '\' service S {';", False)
        self.assert_is_service(r'option x = "\\"; service S {}', True)
        self.assert_is_service("message M { a.service service = 1; }", False)


if __name__ == "__main__":
    unittest.main()
