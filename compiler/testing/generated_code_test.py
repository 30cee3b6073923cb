"""What the generator writes compiles without a warning, in whichever dialect of the two compilers,
and clang-format has nothing to change in it.

    generated_code_test.py SOURCE_DIR PLUGIN PROTOC GXX CLANGXX CLANG_FORMAT
"""

import itertools
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor

SOURCE_DIR, PLUGIN, PROTOC, GXX, CLANGXX, CLANG_FORMAT = sys.argv[1:7]
SOURCE = pathlib.Path(SOURCE_DIR)
FRAMEWORK_PROTOS = SOURCE / "core/common/rpc/proto"
ODD_PROTOS = SOURCE / "compiler/testing/protos"
WARNINGS = (
    "-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast "
    "-Wconversion -Werror"
).split()
DIALECTS = [[], ["-fno-exceptions", "-fno-rtti"]]


def run(command, cwd=None):
    result = subprocess.run(
        command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return result.returncode, result.stdout


def run_or_raise(command, cwd=None):
    status, output = run(command, cwd)
    if status != 0:
        raise RuntimeError(f"{shlex.join(map(str, command))}: {output}")


def protos_below(folder):
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*.proto"))


class GeneratedCodeTest(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.messages = pathlib.Path(folder.name) / "messages"
        cls.code = pathlib.Path(folder.name) / "code"
        cls.messages.mkdir()
        cls.code.mkdir()
        # One after the other: two files with a service of the same package are no fault of either.
        run_or_raise([
            PROTOC, f"--plugin=protoc-gen-varnic={PLUGIN}", f"--cpp_out={cls.messages}",
            f"--varnic_out={cls.code}", f"-I{FRAMEWORK_PROTOS}", f"-I{ODD_PROTOS}",
            *protos_below(FRAMEWORK_PROTOS), *protos_below(ODD_PROTOS)
        ])

    def files(self, pattern):
        files = sorted(self.code.rglob(pattern))
        self.assertGreater(len(files), 0)
        return files

    # Each source alone, so that its header is the first that it includes.
    def assert_compiles(self, compiler, dialect, pattern):
        command = [
            compiler, "-std=c++17", "-fsyntax-only", *WARNINGS, *dialect, f"-I{self.code}",
            f"-isystem{self.messages}", f"-isystem{SOURCE}"
        ]
        files = self.files(pattern)
        with ThreadPoolExecutor(2) as pool:
            results = list(pool.map(lambda file: run([*command, file]), files))
        for file, (status, output) in zip(files, results):
            self.assertEqual((status, output), (0, ""), file.relative_to(self.code))

    def test_skeletons_compile_with_gcc(self):
        for dialect in DIALECTS:
            self.assert_compiles(GXX, dialect, "*.rpc.cc")

    def test_skeletons_compile_with_clang(self):
        for dialect in DIALECTS:
            self.assert_compiles(CLANGXX, dialect, "*.rpc.cc")

    def test_clients_compile_with_gcc(self):
        for dialect in DIALECTS:
            self.assert_compiles(GXX, dialect, "*.client.cc")

    def test_clients_compile_with_clang(self):
        for dialect in DIALECTS:
            self.assert_compiles(CLANGXX, dialect, "*.client.cc")

    # Whichever macros the generated code sees, in the dialects of now and of tomorrow.
    def test_method_that_is_a_macro_is_refused(self):
        everything = self.code / "everything.cc"
        self.addCleanup(everything.unlink)
        everything.write_text("".join(
            f'#include "{file.relative_to(self.code)}"\n'
            for file in self.files("*.h") + self.files("*.cc") if file != everything))
        macros = set()
        for compiler, standard in itertools.product([GXX, CLANGXX], ["gnu++17", "gnu++20"]):
            status, output = run([
                compiler, f"-std={standard}", "-dM", "-E", f"-I{self.code}", f"-I{self.messages}",
                f"-I{SOURCE}", everything
            ])
            self.assertEqual(status, 0, output)
            macros |= set(re.findall(r"^#define (\w+)", output, re.MULTILINE))
        self.assertIn("linux", macros)
        methods = "".join(f"  rpc {macro}(M) returns (M);\n" for macro in sorted(macros))
        (self.messages / "macros.proto").write_text(
            f'syntax = "proto3";\nmessage M {{}}\nservice S {{\n{methods}}}\n')

        status, output = run([
            PROTOC, f"--plugin=protoc-gen-varnic={PLUGIN}", "--varnic_out=.", "macros.proto"
        ], cwd=self.messages)

        self.assertEqual(status, 1)
        refused = set(re.findall(r" S\.(\w+) has a name that C\+\+ or a macro may mean", output))
        self.assertEqual(sorted(macros - refused), [])

    def test_clang_format_changes_nothing(self):
        style = f"--style=file:{SOURCE / '.clang-format'}"
        status, output = run([CLANG_FORMAT, style, "--dry-run", "-Werror", *self.files("*.*")])
        self.assertEqual((status, output), (0, ""))


class CommandInTheReadmeTest(unittest.TestCase):
    """The README's own protoc command, with other folders in it."""

    def test_writes_the_golden_files(self):
        readme = (SOURCE / "compiler/README.md").read_text()
        command = re.search(r"^    (protoc --plugin=(?:.*\\\n)*.*)$", readme, re.MULTILINE).group(1)
        with tempfile.TemporaryDirectory() as out:
            words = shlex.split(command.replace("\\\n", " "))
            words = [PROTOC if word == "protoc" else
                     f"--plugin={PLUGIN}" if word.startswith("--plugin=") else
                     f"--varnic_out={out}" if word.startswith("--varnic_out=") else
                     word for word in words]
            self.assertEqual(run(words, cwd=SOURCE), (0, ""))
            for golden in sorted((SOURCE / "compiler/testdata").iterdir()):
                written = pathlib.Path(out) / "rpc/profile" / golden.name
                self.assertEqual(written.read_text(), golden.read_text(), golden.name)


class PluginTest(unittest.TestCase):
    """The plugin as protoc runs it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_protoc(self, *options, **protos):
        for name, text in protos.items():
            (self.folder / f"{name}.proto").write_text('syntax = "proto3";\n' + text)
        return run([
            PROTOC, f"--plugin=protoc-gen-varnic={PLUGIN}", "--varnic_out=.", *options,
            *(f"{name}.proto" for name in protos)
        ], cwd=self.folder)

    def written(self):
        return sorted(path.name for path in self.folder.iterdir() if path.suffix != ".proto")

    def test_writes_both_parts_unless_told_otherwise(self):
        self.assertEqual(self.run_protoc(a="service A {}", b="message B {}"), (0, ""))
        self.assertEqual(self.written(), ["a.client.cc", "a.client.h", "a.rpc.cc", "a.rpc.h"])

    def test_writes_the_skeleton_alone(self):
        self.assertEqual(self.run_protoc("--varnic_opt=skeleton", a="service A {}"), (0, ""))
        self.assertEqual(self.written(), ["a.rpc.cc", "a.rpc.h"])

    def test_writes_the_client_alone(self):
        self.assertEqual(self.run_protoc("--varnic_opt=client", a="service A {}"), (0, ""))
        self.assertEqual(self.written(), ["a.client.cc", "a.client.h"])

    def test_names_an_option_that_there_is_not(self):
        status, output = self.run_protoc("--varnic_opt=fast", a="service A {}")
        self.assertEqual(status, 1)
        self.assertEqual(
            output, '--varnic_out: there is no option "fast", only "skeleton" and "client"\n')
        self.assertEqual(self.written(), [])

    def test_tells_what_is_wrong_with_each_file_and_writes_none(self):
        status, output = self.run_protoc(
            a="service A { rpc delete(M) returns (M); } message M {}", b="service B {}",
            c="service C {} service D {}")
        self.assertEqual(status, 1)
        self.assertEqual(
            output,
            "--varnic_out: a.proto:2: A.delete has a name that C++ or a macro may mean otherwise; "
            "rename it\n"
            "c.proto:2: D is the file's second service after C; give it a file of its own\n")
        self.assertEqual(self.written(), [])

    def test_says_no_to_what_is_no_request(self):
        result = subprocess.run([PLUGIN], input=b"\xff", capture_output=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, b"")
        self.assertIn(b"unparseable request", result.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[7:])
