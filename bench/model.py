"""What follows from the measured cost of a frame for faster networks, disks and more processors: a calculation, no
measurement.

A READ_FRAME of B bytes costs the server `base + B * slope` of one processor's time. The least of these decides how many it
answers a second:
  processors   processors / cost                  every processor is the server's
  link         rate * 0.94 / (8 * B)              TCP over Ethernet frames of 1500 bytes
  disk         bytes a second / B                 frames that are not in the page cache
  workers      workers / cost                     a worker answers one request at a time, and waits for no disk or client
"""

from scenarios import KIB, MIB

LINKS_GBIT = (1, 10, 25, 100)
FRAMES = (64 * KIB, MIB, 8 * MIB)
USEFUL = 0.94
DISKS_GB = (0.5, 3.5, 7)


def cost_us(base_us, per_kib_us, size):
    return base_us + per_kib_us * size / KIB


def frames_text(count):
    return f'{count:,.0f}'


def size_text(size):
    return f'{size // MIB} MiB' if size >= MIB else f'{size // KIB} KiB'


def table(base_us, per_kib_us):
    """Markdown: a row for each frame size."""
    head = ['frame', 'processor time', 'frames/s of one processor', 'Gbit/s of one processor',
            *(f'processors that {link} GbE keeps busy' for link in LINKS_GBIT),
            *(f'frames/s of a disk of {disk:g} GB/s' for disk in DISKS_GB), 'frames/s that 12 workers could answer']
    lines = ['| ' + ' | '.join(head) + ' |', '|' + '---|' * len(head)]
    for size in FRAMES:
        cost = cost_us(base_us, per_kib_us, size)
        rate = 1e6 / cost
        cells = [size_text(size), f'{cost:.0f} µs', frames_text(rate), f'{rate * size * 8 / 1e9:.0f}']
        cells += [f'{link * 1e9 * USEFUL / 8 / size * cost / 1e6:.2f}' for link in LINKS_GBIT]
        cells += [frames_text(disk * 1e9 / size) for disk in DISKS_GB]
        cells.append(frames_text(12 * rate))
        lines.append('| ' + ' | '.join(cells) + ' |')
    return '\n'.join(lines)
