#!/usr/bin/python3
"""Writes the list of cases into README.md; with --check says whether it is the same already."""

import pathlib
import sys

import flood
import frame_definitions_test
import frames_test
import header_compression_test
import http_semantics_test
import starting_test
import streams_test
from cases import Http2Test

README = pathlib.Path(__file__).resolve().parent / "README.md"
BEGIN, END = "<!-- The cases -->\n", "<!-- The end of the cases -->\n"

FILES = (
    (starting_test, "RFC 9113, section 3: how a connection begins"),
    (frames_test, "RFC 9113, sections 4 and 5.5: frames, header blocks and extensions"),
    (streams_test, "RFC 9113, section 5: streams"),
    (frame_definitions_test, "RFC 9113, sections 6 and 7: frame types and error codes"),
    (header_compression_test, "RFC 7541: header compression"),
    (http_semantics_test, "RFC 9113, section 8: requests and answers"),
)


def test_classes(module):
    return [value for value in vars(module).values()
            if isinstance(value, type) and issubclass(value, Http2Test)
            and "CASES" in vars(value) and value.__module__ == module.__name__]


def lines():
    for module, title in FILES:
        yield f"### {title}\n\nIn [`{module.__name__}.py`]({module.__name__}.py).\n\n"
        yield "| section | what is sent | what the host does | test |\n|---|---|---|---|\n"
        for cls in test_classes(module):
            for case in cls.CASES:
                star = " (a known deviation)" if case.deviation else ""
                yield (f"| {case.section} | {case.name} | {case.outcome.text}{star} |"
                       f" `{cls.__name__}.{case.test_name}` |\n")
        yield "\n"
    yield "### Known deviations\n\n"
    for module, _ in FILES:
        for cls in test_classes(module):
            for case in cls.CASES:
                if case.deviation:
                    yield f"- {case.section}, {case.name}: {case.deviation}.\n"
    yield "\n### Floods\n\n"
    yield "In [`floods_test.py`](floods_test.py), over a Unix-domain socket and TCP.\n\n"
    yield "| name | known as | what is sent | what the host does |\n|---|---|---|---|\n"
    for name, one in flood.FLOODS.items():
        yield f"| `{name}` | {one.cve} | {one.what} | {' or '.join(one.ends)} |\n"


def main():
    text = README.read_text()
    head, _, rest = text.partition(BEGIN)
    tail = rest.partition(END)[2]
    wanted = head + BEGIN + "\n" + "".join(lines()) + "\n" + END + tail
    if "--check" not in sys.argv:
        README.write_text(wanted)
    elif text != wanted:
        sys.exit("README.md does not list the cases as they are: run tests/http2/case_list.py")


if __name__ == "__main__":
    main()
