#!/usr/bin/env python3
"""The coverage report against a program of a few lines: report_test.py COMPILER."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

REPORT = pathlib.Path(__file__).with_name('report.py')


def report(body, arguments=()):
    """Compiles, runs and reports a function of the lines `body`; (exit code, complaints, summary)."""
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        (root / 'build').mkdir()
        (root / 'zemhttpd').mkdir()
        source = root / 'zemhttpd' / 'sample.cpp'
        source.write_text('int sample(int given) {\n' + body + '    return given;\n}\n')
        driver = root / 'main.cpp'
        driver.write_text('int sample(int given);\nint main(int count, char**) {\n    return sample(count) < 0;\n}\n')
        subprocess.run([COMPILER, '-O0', '--coverage', source, driver, '-o', 'sample'], cwd=root / 'build', check=True)
        subprocess.run([root / 'build' / 'sample', *arguments], check=True)
        run = subprocess.run([sys.executable, '-B', REPORT, root, root / 'build'], capture_output=True, text=True)
        *complaints, summary = run.stdout.splitlines()
        return run.returncode, complaints, summary


class Report(unittest.TestCase):
    def expect(self, body, complaints, summary):
        code, found, told = report(body)
        self.assertEqual(found, complaints)
        self.assertIn(summary, told)
        self.assertEqual(code, 1 if complaints else 0)

    def test_all_reached(self):
        self.expect('    ++given;\n', [], '3 of 3 lines reached (100.00 %), 0 more named, 0 complaints')

    def test_an_unreached_line_is_told_by_its_place(self):
        self.expect('    if (given > 5)\n        ++given;\n',
                    ['zemhttpd/sample.cpp:3: not reached: ++given;'], '3 of 4 lines reached (75.00 %)')

    def test_a_comment_behind_the_code_names_that_line_alone(self):
        self.expect('    if (given > 5) {\n        ++given;  // Not reached in tests: no such number\n        ++given;\n    }\n',
                    ['zemhttpd/sample.cpp:4: not reached: ++given;'], '1 more named')

    def test_a_comment_of_its_own_names_the_block_below_it(self):
        self.expect('    // Not reached in tests: no such\n    // number\n    if (given > 5) {\n        ++given;\n\n        ++given;\n    }\n',
                    [], '3 of 5 lines reached (60.00 %), 2 more named, 0 complaints')

    def test_a_comment_behind_a_catch_names_all_of_it(self):
        self.expect('    try {\n        if (given > 5) throw given;\n    } catch (...) {  // Not reached in tests: nothing throws\n        --given;\n    }\n',
                    [], '0 complaints')

    def test_a_block_ends_where_the_indentation_does(self):
        self.expect('    if (given > 5) {\n        // Not reached in tests: no such number\n        ++given;\n        ++given;\n    }\n',
                    ['zemhttpd/sample.cpp:5: not reached: ++given;'], '1 more named')

    def test_a_reason_is_asked_for(self):
        self.expect('    if (given > 5)\n        ++given;  // Not reached in tests:\n',
                    ['zemhttpd/sample.cpp:3: a comment without a reason'], '1 more named')

    def test_a_comment_on_what_is_reached_is_out_of_date(self):
        self.expect('    ++given;  // Not reached in tests: never\n',
                    ['zemhttpd/sample.cpp:2: names lines that the tests reach'], '3 of 3')

    def test_a_source_that_never_ran_counts(self):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder)
            (root / 'zemhttpd').mkdir()
            (root / 'zemhttpd' / 'idle.cpp').write_text('int idle() {\n    return 1;\n}\n')
            subprocess.run([COMPILER, '-O0', '--coverage', '-c', root / 'zemhttpd' / 'idle.cpp'], cwd=root, check=True)
            run = subprocess.run([sys.executable, '-B', REPORT, root, root], capture_output=True, text=True)
            self.assertEqual(run.returncode, 1)
            self.assertIn('0 of 2 lines reached', run.stdout)

    def test_a_build_without_counters_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            run = subprocess.run([sys.executable, '-B', REPORT, folder, folder], capture_output=True, text=True)
            self.assertEqual(run.returncode, 1)
            self.assertIn('was not built with --coverage', run.stderr)


if __name__ == '__main__':
    COMPILER = sys.argv.pop(1)
    unittest.main()
