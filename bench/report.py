"""Results as text, as Markdown and as a picture."""

import statistics
from xml.sax.saxutils import escape


class Result:
    """Of one scenario: pairs of samples, ours and the peer's."""

    def __init__(self, scenario, pairs):
        self.scenario, self.pairs = scenario, pairs
        field = 'p99_us' if scenario.metric == 'p99' else 'rate'
        self.ours = [getattr(ours, field) for ours, _ in pairs]
        self.theirs = [getattr(theirs, field) for _, theirs in pairs]
        self.ratios = [a / b for a, b in zip(self.ours, self.theirs)]
        # Of the medians, which decide; the ratios of the pairs are the spread.
        self.ratio = statistics.median(self.ours) / statistics.median(self.theirs)
        self.cpu_us = statistics.median(ours.cpu_us for ours, _ in pairs)
        their_cpu_us = statistics.median(theirs.cpu_us for _, theirs in pairs)
        self.cpu_ratio = self.cpu_us / their_cpu_us if their_cpu_us else None

    def verdict(self):
        target, cpu_target = self.scenario.target, self.scenario.cpu_target
        if target is None:
            return ''
        met = self.ratio <= target if self.scenario.metric == 'p99' else self.ratio >= target
        if met and cpu_target is not None and self.cpu_ratio is not None:
            met = self.cpu_ratio <= cpu_target
        return 'met' if met else 'MISSED'

    def cells(self):
        sign = '≤' if self.scenario.metric == 'p99' else '≥'
        target = '' if self.scenario.target is None else f'{sign} {self.scenario.target:g}'
        cpu = '' if self.cpu_ratio is None else f'{self.cpu_ratio:.2f}'
        if self.scenario.cpu_target is not None:
            target += f'; CPU ≤ {self.scenario.cpu_target:g}'
        return [self.scenario.title, self.scenario.peer, spread(self.ours, unit(self.scenario)),
                spread(self.theirs, unit(self.scenario)),
                f'{self.ratio:.3f} [{min(self.ratios):.3f} .. {max(self.ratios):.3f}]', f'{self.cpu_us:.1f}', cpu, target,
                self.verdict()]


HEAD = ['work', 'beside', 'zemhost', 'the other', 'ratio', 'CPU µs', 'CPU ratio', 'target', '']


def unit(scenario):
    return ' µs' if scenario.metric == 'p99' else '/s'


def spread(values, suffix='', digits=0):
    return (f'{statistics.median(values):.{digits}f}{suffix} [{min(values):.{digits}f} .. '
            f'{max(values):.{digits}f}]')


def markdown_row(cells):
    return '| ' + ' | '.join(cells) + ' |'


def markdown(results, facts):
    lines = [markdown_row(HEAD), '|' + '---|' * len(HEAD)]
    lines += [markdown_row(result.cells()) for result in results]
    lines += ['', *(f'- {line}' for line in facts)]
    return '\n'.join(lines) + '\n'


STYLE = ('<style>text{fill:#1c2733}.s{fill:#5b6b7a}.b{fill:#b9d3ea}.m{fill:#1f6fb2}.t{stroke:#c0392b;stroke-width:2}'
         '.g{stroke:#d5dde5}.p{fill:#fff}.w{stroke:#b9d3ea;stroke-width:4}.l{stroke:#1f6fb2}'
         '@media(prefers-color-scheme:dark){text{fill:#e8eef4}.s{fill:#9fb0c0}.b{fill:#31506b}.m{fill:#6fb7f0}'
         '.g{stroke:#33414e}.p{fill:#131a21}.w{stroke:#31506b}.l{stroke:#6fb7f0}}</style>')


def opening(width, height, title, below):
    return [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" role="img" '
            f'font-family="system-ui, sans-serif" font-size="13">',
            f'<title>{escape(title)}</title>', STYLE, f'<rect class="p" width="{width}" height="{height}"/>',
            f'<text x="16" y="24" font-size="16">{escape(title)}</text>',
            f'<text class="s" x="16" y="44">{escape(below)}</text>']


def svg(results, title):
    """A bar for every ratio, from its least to its most, with the median and the target on it."""
    rows = [result for result in results if result.scenario.metric == 'rate']
    left, width, step, top = 400, 420, 26, 64
    most = max(1.5, *(min(3.0, max(result.ratios)) for result in rows))
    height = top + step * len(rows) + 40

    def x(ratio):
        return left + width * min(ratio, most) / most

    out = opening(left + width + 90, height, title,
                  'requests per second, zemhost / peer: median and spread; red: target')
    for tick in (0.5, 1.0, 1.5, 2.0, 2.5, 3.0):
        if tick <= most:
            out.append(f'<line class="g" x1="{x(tick):.1f}" x2="{x(tick):.1f}" y1="{top - 8}" y2="{height - 28}"/>')
            out.append(f'<text class="s" x="{x(tick):.1f}" y="{height - 12}" text-anchor="middle">{tick:g}</text>')
    for i, result in enumerate(rows):
        y = top + step * i
        scenario = result.scenario
        out.append(f'<text x="16" y="{y + 13}">{escape(scenario.title)}</text>')
        out.append(f'<text class="s" x="{left - 8}" y="{y + 13}" text-anchor="end" font-size="11">'
                   f'{escape(scenario.peer)}</text>')
        low, high = x(min(result.ratios)), x(max(result.ratios))
        out.append(f'<rect class="b" x="{low:.1f}" y="{y + 2}" width="{max(2, high - low):.1f}" height="14" rx="3"/>')
        out.append(f'<rect class="m" x="{x(result.ratio) - 2:.1f}" y="{y}" width="4" height="18" rx="2"/>')
        if scenario.target is not None:
            at = x(scenario.target)
            out.append(f'<line class="t" x1="{at:.1f}" x2="{at:.1f}" y1="{y}" y2="{y + 18}"/>')
        out.append(f'<text x="{left + width + 16}" y="{y + 13}">{result.ratio:.2f}</text>')
    out.append('</svg>')
    return '\n'.join(out) + '\n'


def line_table(results):
    """Markdown: the medians with least and most, and what the line says at the same place."""
    lines = []
    for result in results:
        lines += [result.text() + '.', '', markdown_row([f'n ({result.line.of})', f'{result.line.unit}', 'the line says']),
                  '|---|---|---|']
        lines += [markdown_row([str(n), spread(values, '', 1), f'{result.at(n):.1f}'])
                  for n, values in result.points.items()] + ['']
    return '\n'.join(lines)


def line_svg(results, title):
    """A field for each line: the medians with their spread, and the straight line."""
    width, height, left, top, gap = 280, 220, 64, 92, 76
    step = width + gap
    out = opening(left + step * len(results), top + height + 56, title,
                  'median and spread of all rounds; the straight line fits the least of each')
    for i, result in enumerate(results):
        x0, y0 = left + i * step, top + height
        most_n = max(result.points)
        most = max(max(values) for values in result.points.values()) * 1.05

        def x(n):
            return x0 + width * n / most_n

        def y(cost):
            return y0 - height * cost / most

        out.append(f'<text x="{x0 - 8}" y="{top - 18}">{escape(", ".join(result.line.title.split(", ")[:2]))}</text>')
        for part in range(5):
            at = most * part / 4
            out.append(f'<line class="g" x1="{x0}" x2="{x0 + width}" y1="{y(at):.1f}" y2="{y(at):.1f}"/>')
            out.append(f'<text class="s" x="{x0 - 6}" y="{y(at) + 4:.1f}" text-anchor="end" font-size="11">{at:.0f}</text>')
        out.append(f'<text class="s" x="{x0 - 16}" y="{top - 18}" text-anchor="end" font-size="11">{result.line.unit}</text>')
        out.append(f'<line class="l" x1="{x(0):.1f}" x2="{x(most_n):.1f}" y1="{y(max(0, result.base)):.1f}" '
                   f'y2="{y(result.at(most_n)):.1f}"/>')
        labelled = -1000
        for n, values in result.points.items():
            out.append(f'<line class="w" x1="{x(n):.1f}" x2="{x(n):.1f}" y1="{y(min(values)):.1f}" '
                       f'y2="{y(max(values)):.1f}"/>')
            out.append(f'<circle class="m" cx="{x(n):.1f}" cy="{y(result.medians[n]):.1f}" r="3.5"/>')
            if x(n) - labelled >= 24:
                labelled = x(n)
                out.append(f'<text class="s" x="{labelled:.1f}" y="{y0 + 16}" text-anchor="middle" font-size="11">{n}</text>')
        out.append(f'<text class="s" x="{x0}" y="{y0 + 36}" font-size="11">{result.base:.1f} + {result.slope:.2f} '
                   f'{result.line.unit} · n, R² {result.fit:.4f}</text>')
    out.append('</svg>')
    return '\n'.join(out) + '\n'
