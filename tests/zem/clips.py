"""Clips of every container and codec that the tests read, made by ffmpeg when they are needed."""

import collections
import fractions
import hashlib
import json
import os
import re
import subprocess

SOUND = ['-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000']
FILM, PAL, NTSC, PAL2, NTSC2 = '24000/1001', '25', '30000/1001', '50', '60000/1001'
RATES = (FILM, PAL, NTSC, PAL2, NTSC2)


def picture(rate, size='320x240'):
    return ['-f', 'lavfi', '-i', 'testsrc2=size=%s:rate=%s' % (size, rate)]


def cut(rate, frames, samples=None):
    """So many frames, and as much sound, or so many samples. By filters: after "-frames:v" it is up to chance how much sound
    the encoder had taken by then."""
    samples = round(frames * 48000 / fractions.Fraction(rate)) if samples is None else samples
    return ['-vf', 'trim=end_frame=%d' % frames, '-af', 'atrim=end_sample=%d' % samples]


def film(rate, *arguments, size='320x240'):
    """Pictures and sound."""
    return [*picture(rate, size), *SOUND, *arguments]


MJPEG = ['-c:v', 'mjpeg']
H264 = ['-c:v', 'libx264', '-preset', 'ultrafast', '-bf', '2', '-g', '20', '-pix_fmt', 'yuv420p', '-threads', '1']
MPEG2 = ['-c:v', 'mpeg2video', '-g', '12', '-bf', '2', '-threads', '1']
PRORES = ['-c:v', 'prores', '-profile:v', '0']
RAW = ['-c:v', 'rawvideo', '-pix_fmt', 'uyvy422']
DV_PAL = ['-c:v', 'dvvideo', '-pix_fmt', 'yuv420p']
DV_NTSC = ['-c:v', 'dvvideo', '-pix_fmt', 'yuv411p']
PCM16, PCM24, PCM24BE = ['-c:a', 'pcm_s16le'], ['-c:a', 'pcm_s24le'], ['-c:a', 'pcm_s24be']
AAC, MP2 = ['-c:a', 'aac'], ['-c:a', 'mp2']
# Two threads on every machine: as one slice a picture misses the rate, which must be exact here.
D10 = ['-c:v', 'mpeg2video', '-b:v', '30M', '-minrate', '30M', '-maxrate', '30M', '-bufsize', '1200000',
       '-rc_init_occupancy', '1200000', '-g', '0', '-pix_fmt', 'yuv422p', '-intra_vlc', '1', '-ps', '1', '-qmin', '1',
       '-rc_max_vbv_use', '1', '-flags', '+ildct+low_delay', '-dc', '10', '-f', 'mxf_d10', '-ac', '4',
       '-threads', '2']
FRAGMENTS = ['-movflags', 'frag_keyframe+empty_moov']

# arguments: inputs and codecs; rate: of the pictures, None where there are none; streams: a letter each, "v" pictures,
# "a" coded sound, "p" PCM that is cut to the pictures, "q" PCM that is not when it is read in place, for the file has it in
# another form; leaves: the container in which zem export makes a clip of it again, None where there is none that keeps
# every packet; quick: one of the few that are enough to see every codec and rate once.
Clip = collections.namedtuple('Clip', 'arguments rate streams leaves quick', defaults=(False,))

CLIPS = {
    'mjpeg.mov': Clip(film(NTSC, *MJPEG, *PCM16, '-timecode', '01:00:59;20'), NTSC, 'vp', 'mov', True),
    'prores.mov': Clip(film(FILM, *PRORES, *PCM24), FILM, 'vp', 'mov', True),
    'raw.mov': Clip(film(PAL2, *RAW, *PCM24BE, size='128x96'), PAL2, 'vp', 'mov', True),
    'h264.mov': Clip(film(NTSC2, *H264, *PCM16, '-timecode', '01:00:59;58'), NTSC2, 'vp', 'mov'),
    'dv.mov': Clip(film(NTSC, *DV_NTSC, *PCM16, *cut(NTSC, 12), size='720x480'), NTSC, 'vp', 'mov'),
    'fragments.mov': Clip(film(NTSC, *MJPEG, *PCM16, '-movflags', 'frag_every_frame+empty_moov'), NTSC, 'vp', 'mov'),
    'h264.mp4': Clip(film(NTSC2, *H264, *AAC), NTSC2, 'va', 'mov', True),
    'h264-front.mp4': Clip(film(FILM, *H264, *AAC, '-movflags', 'faststart'), FILM, 'va', 'mp4'),
    'fragments.mp4': Clip(film(PAL, *H264, *AAC, *FRAGMENTS), PAL, 'va', 'mov', True),
    'many-fragments.mp4': Clip(film(PAL2, *H264, *AAC, '-movflags', 'empty_moov+default_base_moof', '-frag_duration',
                                    '300000'), PAL2, 'va', 'mp4'),
    'sidx.mp4': Clip(film(NTSC, *H264, *AAC, '-movflags', 'dash+global_sidx+frag_keyframe'), NTSC, 'va', 'mp4'),
    'h264.mkv': Clip(film(FILM, *H264, *AAC), FILM, 'va', 'mov', True),
    'mjpeg.mkv': Clip(film(NTSC2, *MJPEG, *PCM24), NTSC2, 'vp', 'mov'),
    'mjpeg-film.mkv': Clip(film(FILM, *MJPEG, *PCM16), FILM, 'vp', 'mkv'),
    'raw.mkv': Clip(film(PAL2, *RAW, *PCM16, '-allow_raw_vfw', '1', size='128x96'), PAL2, 'vp', 'mov'),
    'mpeg2.mxf': Clip([*picture(NTSC), *SOUND, *SOUND, '-map', '0', '-map', '1', '-map', '2', *MPEG2, '-timecode',
                       '10:00:59;20', *PCM16], NTSC, 'vpp', 'mxf', True),
    'mpeg2-film.mxf': Clip(film(FILM, *MPEG2, *PCM24), FILM, 'vp', 'mxf'),
    'h264.mxf': Clip(film(NTSC2, *H264, *PCM24), NTSC2, 'vp', 'mxf'),
    'h264-pal.mxf': Clip(film(PAL2, *H264, *PCM16), PAL2, 'vp', 'mxf'),
    'prores.mxf': Clip(film(FILM, *PRORES, *PCM24), FILM, 'vp', 'mxf'),
    'dnxhd.mxf': Clip(film(NTSC2, '-c:v', 'dnxhd', '-b:v', '75M', '-pix_fmt', 'yuv422p', *cut(NTSC2, 30), *PCM24,
                           size='1280x720'), NTSC2, 'vp', 'mxf'),
    'dv.mxf': Clip(film(PAL, *DV_PAL, *PCM16, *cut(PAL, 25), '-timecode', '09:59:59:20', size='720x576'), PAL,
                   'vp', 'mxf', True),
    'd10.mxf': Clip(film(PAL, *D10, *PCM16, *cut(PAL, 12), size='720x608'), PAL, 'vq', 'mov'),
    'dnxhd-atom.mxf': Clip([*picture(PAL, '1920x1080'), '-c:v', 'dnxhd', '-b:v', '36M', '-f', 'mxf_opatom',
                            '-frames:v', '8'], PAL, 'v', 'mxf'),
    'pcm-atom.mxf': Clip([*SOUND, *PCM16, '-f', 'mxf_opatom'], None, 'p', 'wav', True),
    'pcm24-atom.mxf': Clip([*SOUND, *PCM24, '-f', 'mxf_opatom'], None, 'p', 'wav'),
    'mjpeg.avi': Clip(film(NTSC, *MJPEG, *PCM16), NTSC, 'vp', 'mov', True),
    'mjpeg-film.avi': Clip(film(FILM, *MJPEG, *PCM24), FILM, 'vp', 'avi'),
    'dv.avi': Clip(film(NTSC, *DV_NTSC, *PCM16, *cut(NTSC, 20, 27648), size='720x480'), NTSC, 'vp', 'mov'),
    'raw.avi': Clip(film(PAL, '-c:v', 'rawvideo', '-pix_fmt', 'yuyv422', *PCM16, size='128x96'), PAL, 'vp', 'avi'),
    'h264.avi': Clip(film(NTSC2, *H264, '-bf', '0', *PCM16), NTSC2, 'vp', 'avi'),
    'mpeg2.ts': Clip(film(PAL, *MPEG2, *MP2), PAL, 'va', 'mov', True),
    'h264.ts': Clip(film(PAL2, *H264, *AAC), PAL2, 'va', 'ts'),
    'aes3.ts': Clip(film(NTSC, *MPEG2, '-ac', '2', '-c:a', 's302m', '-strict', '-2'), NTSC, 'va', 'ts'),
    'bluray.m2ts': Clip(film(FILM, *H264, '-c:a', 'pcm_bluray'), FILM, 'va', None),
    'mpeg2.mpg': Clip(film(NTSC, *MPEG2, *MP2, '-f', 'vob'), NTSC, 'va', 'mov'),
    'pcm.mpg': Clip(film(PAL, *MPEG2, '-c:a', 'pcm_dvd', '-f', 'vob'), PAL, 'va', None),
    'mpeg2.gxf': Clip(film(PAL, *MPEG2, '-pix_fmt', 'yuv420p', *PCM16, size='720x576'), PAL, 'vp', 'mov'),
    'mpeg2-ntsc.gxf': Clip(film(NTSC, *MPEG2, '-pix_fmt', 'yuv420p', *PCM16, size='720x480'), NTSC, 'vp', 'mov'),
    'raw.dv': Clip([*picture(NTSC, '720x480'), *DV_NTSC, '-frames:v', '10'], NTSC, 'v', 'mov'),
    'raw-sound.dv': Clip(film(PAL, *DV_PAL, '-ac', '2', *PCM16, size='720x576'), PAL, 'vq', 'mov'),
    'pcm16.wav': Clip([*SOUND, *PCM16], None, 'p', 'mov'),
    'pcm24.wav': Clip([*SOUND, *PCM24], None, 'p', 'wav', True),
    'rf64.wav': Clip([*SOUND, *PCM24, '-rf64', 'always'], None, 'p', 'wav'),
    'pcm.w64': Clip([*SOUND, *PCM24], None, 'p', 'w64'),
    'pcm.aiff': Clip([*SOUND, '-c:a', 'pcm_s16be'], None, 'p', 'aiff'),
    'pcm.caf': Clip([*SOUND, *PCM24], None, 'p', 'caf'),
}


def make(folder, name, seconds='2', extra=()):
    path = os.path.join(folder, name)
    subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-y', *CLIPS[name].arguments, '-t', seconds, *extra, path],
                   check=True)
    return path


def streams(name):
    """Of each stream of the clip: its letter in the table, its name for zem, its name for ffmpeg."""
    numbers = collections.Counter()
    for kind in CLIPS[name].streams:
        letter = 'v' if kind == 'v' else 'a'
        yield kind, letter + str(numbers[letter]), '%s:%d' % (letter, numbers[letter])
        numbers[letter] += 1


def columns(listing):
    """The size and hash columns of a per-frame checksum list."""
    rows = [line.split(',') for line in listing.splitlines() if line and not line.startswith('#')]
    return [(int(row[4]), row[5].strip()) for row in rows]


def framemd5(path, stream):
    """What ffmpeg delivers of a stream such as v:0, packet by packet."""
    done = subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-i', path, '-map', '0:' + stream, '-c', 'copy', '-f',
                           'framemd5', '-'], check=True, capture_output=True, text=True)
    return columns(done.stdout)


def payload(path, stream):
    """All packets of a stream one after another."""
    return subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-i', path, '-map', '0:' + stream, '-c', 'copy', '-f',
                           'data', '-'], check=True, capture_output=True).stdout


def sample_size(name):
    """Bytes of one sample of all channels of the clip's PCM."""
    arguments = ' '.join(CLIPS[name].arguments)
    channels = re.search(r'-ac (\d+)', arguments)
    return int(re.search(r'pcm_s(\d+)', arguments)[1]) // 8 * int(channels[1] if channels else 1)


def first_sample(position, rate):
    """Where frame `position` of the sound begins: at the sample nearest to so many pictures."""
    return int(fractions.Fraction(48000 * position) / fractions.Fraction(rate) + fractions.Fraction(1, 2))


def cut(data, size, rate):
    """PCM of samples of `size` bytes in frames of the exact cadence of the rate."""
    frames = []
    while first_sample(len(frames), rate) * size < len(data):
        at = len(frames)
        frames.append(data[first_sample(at, rate) * size:first_sample(at + 1, rate) * size])
    return [(len(frame), hashlib.md5(frame).hexdigest()) for frame in frames]


def expected(path, name, kind, source):
    """The frames of a stream of the clip `name` that lies at `path`, as ffmpeg has them."""
    if kind == 'p':
        return cut(payload(path, source), sample_size(name), CLIPS[name].rate or PAL)
    return framemd5(path, source)


def probe(path, entries, stream):
    done = subprocess.run(['ffprobe', '-v', 'error', '-of', 'json', '-select_streams', stream, '-show_entries', entries,
                           path], check=True, capture_output=True, text=True)
    return json.loads(done.stdout)
