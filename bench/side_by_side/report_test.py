"""What reports say of figures, and where they put it."""

import os
import sys
import tempfile
import unittest

import bars
import build_time
import report
import scale
from systems import ROWS, SYSTEMS

UNARY = {
    "varnic": [{"p50_us": 16, "server_cpu_us": 8}],
    "grpc++ sync": [{"p50_us": 18, "server_cpu_us": 20}],
    "grpc++ async": [{"p50_us": 17, "server_cpu_us": 15}],
    "epoll echo": [{"p50_us": 10, "server_cpu_us": 5}],
}
EVENTS = next(curve for curve in scale.CURVES if curve.name == "events")


def memory(*kib):
    return {f"kib_{part}": value for part, value in enumerate(kib)}


class BarsTest(unittest.TestCase):
    def test_a_bar_is_held_against_the_best_of_the_others(self):
        time, cpu = bars.read({"unary-unix": UNARY})

        self.assertEqual((time["beside"], time["ratio"], time["met"]), ("epoll echo", 1.6, True))
        self.assertEqual(cpu["beside"], "grpc++ async")
        self.assertFalse(cpu["met"])

    def test_more_is_better_for_a_rate(self):
        measured = {"varnic": [{"per_second": 800, "server_cpu_us": 1}],
                    "grpc++ sync": [{"per_second": 50, "server_cpu_us": 1}],
                    "grpc++ callback": [{"per_second": 100, "server_cpu_us": 1}]}

        rate, _ = bars.read({"calls-100": measured})

        self.assertEqual((rate["beside"], rate["ratio"], rate["met"]),
                         ("grpc++ callback", 8, True))

    def test_a_machine_that_is_slower_in_some_rounds_changes_no_ratio(self):
        echo = [2, 2, 6, 6, 2]
        varnic = [3, 9, 9, 9, 3]
        measured = {"varnic": [{"p50_us": time, "server_cpu_us": 1} for time in varnic],
                    "epoll echo": [{"p50_us": time, "server_cpu_us": 1} for time in echo]}

        (time,) = bars.read({"unary-unix": measured})

        self.assertEqual((time["varnic"], time["theirs"], time["ratio"]), (9, 2, 1.5))

    def test_a_bar_of_its_own_needs_nobody_else(self):
        (reading,) = bars.read({"memory-stream": {"varnic": [{"bytes": 4097}]}})

        self.assertNotIn("ratio", reading)
        self.assertFalse(reading["met"])

    def test_there_is_no_verdict_without_the_others(self):
        self.assertEqual(bars.read({"unary-unix": {"varnic": UNARY["varnic"]}}), [])

    def test_a_missed_bar_is_shown_as_missed(self):
        text = report.bar_table(ROWS, bars.read({"unary-unix": UNARY}))

        self.assertIn("| at most 1.6 | met |", text)
        self.assertIn("| at most 0.5 | **missed** |", text)

    def test_every_bar_is_for_a_figure_of_a_row_that_has_its_systems(self):
        rows = {row.name: row for row in ROWS}
        for bar in bars.BARS:
            with self.subTest(bar.row):
                self.assertIn(bar.figure, rows[bar.row].figures)
                self.assertLessEqual({"varnic", *bar.beside} - set(bars.GRPC),
                                     set(rows[bar.row].systems))
                self.assertLessEqual(set(rows[bar.row].systems), set(SYSTEMS))


class ScaleTest(unittest.TestCase):
    def test_a_curve_within_a_fifth_is_flat_in_whichever_direction(self):
        self.assertTrue(scale.flatness([10, 11, 12])["flat"])
        self.assertTrue(scale.flatness([12, 11, 10])["flat"])
        self.assertFalse(scale.flatness([10, 12.1, 10])["flat"])

    def test_a_figure_of_nothing_is_not_flat(self):
        self.assertFalse(scale.flatness([0, 1])["flat"])

    def test_a_curve_is_read_by_the_medians_of_its_points(self):
        heading = "server CPU, µs"
        times = {name: 1 for name in EVENTS.figures}
        measured = {"varnic": {100: [{**times, heading: 1}, {**times, heading: 9},
                                     {**times, heading: 1}],
                               1000: [{**times, heading: 1.1}]}}

        readings = scale.readings_of(EVENTS, measured)

        (reading,) = [one for one in readings if one["figure"] == heading]
        self.assertAlmostEqual(reading["highest_to_lowest"], 1.1)
        self.assertIn("| yes |", scale.curve_text(EVENTS, measured))

    def test_memory_may_grow_by_what_is_allowed_and_no_more(self):
        self.assertTrue(scale.growth_of(memory(*[100] * 10, 110), 10)["within"])
        self.assertFalse(scale.growth_of(memory(*[100] * 10, 111), 10)["within"])

    def test_memory_that_was_needed_in_between_counts(self):
        growth = scale.growth_of(memory(*[100] * 5, 150, *[100] * 5), 10)

        self.assertEqual((growth["grown_kib"], growth["within"]), (50, False))


class BuildTimeTest(unittest.TestCase):
    def test_both_steps_are_shown(self):
        measured = {"jobs": 2, "target": "all", "compiled_files": 9,
                    "configure": {"seconds": 1, "cpu_seconds": 1.5},
                    "build": {"seconds": 60, "cpu_seconds": 118}}

        text = build_time.text_of({"load_average_before": 0}, measured)

        self.assertIn("Everything, 9 source files", text)
        self.assertIn("| build | 60.0 | 118.0 |", text)


class InsertTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = os.path.join(self.folder.name, "page.md")

    def write(self, text):
        with open(self.path, "w", encoding="utf-8") as file:
            file.write(text)

    def read(self):
        with open(self.path, encoding="utf-8") as file:
            return file.read()

    def test_what_stands_around_a_section_stays(self):
        begin, end = report.marks("curves")
        self.write(f"above\n{begin}\nold\n{end}\nbelow\n")

        report.insert({"curves": "new\n"}, self.path)

        self.assertEqual(self.read(), f"above\n{begin}\n\nnew\n\n{end}\nbelow\n")

    def test_a_page_without_a_place_is_left_alone(self):
        self.write("nothing here\n")

        with self.assertRaises(SystemExit):
            report.insert({"curves": "new\n"}, self.path)
        self.assertEqual(self.read(), "nothing here\n")

    def test_the_page_of_this_project_has_all_places(self):
        page = os.path.join(build_time.ROOT, "docs", "performance.md")
        with open(page, encoding="utf-8") as file:
            text = file.read()

        for name in ("machine", "bars", "rows", "curves", "memory", "build-time"):
            with self.subTest(name):
                for mark in report.marks(name):
                    self.assertEqual(text.count(mark), 1)


if __name__ == "__main__":
    sys.exit(unittest.main())
