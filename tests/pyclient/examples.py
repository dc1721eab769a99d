#!/usr/bin/env python3
"""The Python examples of the pages run as they stand; only the server's address is another.

usage: examples.py --zemhost PROGRAM [unittest arguments]
"""

import contextlib
import io
import os
import re

import common


class Examples(common.ServerCase):
    def run_example(self, page):
        with open(os.path.join(common.ROOT, page), encoding='utf-8') as text:
            blocks = re.findall(r'^```python\n(.*?)^```$', text.read(), re.MULTILINE | re.DOTALL)
        self.assertEqual(len(blocks), 1, page)
        code = blocks[0]
        self.assertIn('http://127.0.0.1:8080', code)
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            exec(compile(code.replace('http://127.0.0.1:8080', self.url), page, 'exec'), {'__name__': 'example'})
        # What it prints is told behind it, as comments: "# -> text".
        self.assertEqual(printed.getvalue().splitlines(), re.findall(r'# -> (.*)', code))
        self.assertTrue(printed.getvalue())

    def test_readme(self):
        self.run_example('README.md')

    def test_protocol_page(self):
        self.run_example('docs/protocol.md')


if __name__ == '__main__':
    common.main(__doc__)
