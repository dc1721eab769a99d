"""Clips of every container and codec that the tests read in place, made by ffmpeg when they are needed."""

import os
import subprocess

SOUND = ['-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000']
NTSC = '30000/1001'


def picture(rate, size='320x240'):
    return ['-f', 'lavfi', '-i', 'testsrc2=size=%s:rate=%s' % (size, rate)]


H264 = ['-c:v', 'libx264', '-preset', 'ultrafast', '-bf', '2', '-g', '20', '-threads', '1']
PCM = ['-c:a', 'pcm_s16le']

# name: (inputs and codecs, rate of the pictures or None, streams). A PCM stream is "p": it is cut anew.
CLIPS = {
    'mjpeg.mov': (picture(NTSC) + SOUND + ['-c:v', 'mjpeg'] + PCM + ['-timecode', '01:00:00;02'], NTSC, 'vp'),
    'prores.mov': (picture('24000/1001') + SOUND + ['-c:v', 'prores_ks', '-profile:v', '0', '-c:a', 'pcm_s24le'],
                   '24000/1001', 'vp'),
    'raw.mov': (picture('50', '128x96') + SOUND + ['-c:v', 'rawvideo', '-pix_fmt', 'uyvy422', '-c:a', 'pcm_s24be'],
                '50', 'vp'),
    'h264.mp4': (picture('60000/1001') + SOUND + H264 + ['-c:a', 'aac'], '60000/1001', 'va'),
    'fragments.mp4': (picture('25') + SOUND + H264 + ['-c:a', 'aac', '-movflags', 'frag_keyframe+empty_moov'],
                      '25', 'va'),
    'h264.mkv': (picture('24000/1001') + SOUND + H264 + ['-c:a', 'aac'], '24000/1001', 'va'),
    'mpeg2.mxf': (picture(NTSC) + SOUND + SOUND + ['-map', '0', '-map', '1', '-map', '2', '-c:v', 'mpeg2video', '-g',
                                                   '12', '-bf', '2', '-timecode', '10:00:00:00'] + PCM, NTSC, 'vpp'),
    'imx.mxf': (picture('25', '720x608') + SOUND +
                ['-c:v', 'mpeg2video', '-b:v', '30M', '-minrate', '30M', '-maxrate', '30M', '-bufsize', '1200000',
                 '-rc_init_occupancy', '1200000', '-g', '0', '-pix_fmt', 'yuv422p', '-intra_vlc', '1', '-ps', '1',
                 '-qmin', '1', '-rc_max_vbv_use', '1', '-flags', '+ildct+low_delay', '-dc', '10',
                 '-f', 'mxf_d10', '-ac', '4'] + PCM, '25', 'va'),
    'dv.mxf': (picture('25', '720x576') + SOUND + ['-c:v', 'dvvideo', '-pix_fmt', 'yuv420p'] + PCM, '25', 'vp'),
    'dnxhd-atom.mxf': (picture('25', '1920x1080') + ['-c:v', 'dnxhd', '-b:v', '36M', '-f', 'mxf_opatom', '-frames:v',
                                                     '8'], '25', 'v'),
    'pcm-atom.mxf': (SOUND + PCM + ['-f', 'mxf_opatom'], None, 'p'),
    'mjpeg.avi': (picture(NTSC) + SOUND + ['-c:v', 'mjpeg'] + PCM, NTSC, 'vp'),
    'dv.avi': (picture(NTSC, '720x480') + SOUND + ['-c:v', 'dvvideo', '-pix_fmt', 'yuv411p', '-frames:v', '20'] + PCM,
               NTSC, 'vp'),
    'mpeg2.ts': (picture('25') + SOUND + ['-c:v', 'mpeg2video', '-g', '12', '-bf', '2', '-c:a', 'mp2'], '25', 'va'),
    'h264.ts': (picture('50') + SOUND + H264 + ['-c:a', 'aac'], '50', 'va'),
    'sound.wav': (SOUND + ['-c:a', 'pcm_s24le'], None, 'p'),
    'raw.dv': (picture(NTSC, '720x480') + ['-c:v', 'dvvideo', '-pix_fmt', 'yuv411p', '-frames:v', '10'], NTSC, 'v'),
}


def make(folder, name, seconds='2', extra=()):
    path = os.path.join(folder, name)
    subprocess.run(['ffmpeg', '-v', 'error', '-nostdin', '-y', *CLIPS[name][0], '-t', seconds, *extra, path],
                   check=True)
    return path


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
