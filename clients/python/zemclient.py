"""A client of the media server in one file: Python 3.11, standard library only.

Everything here follows docs/protocol.md; a client in another language can be laid out the same way:

    records and constants   what the tables of the page say, as types
    _Wire, _Entity          one persistent HTTP connection, and one answer's bytes, counted
    ZemClient               one method per command, named as the command; and the plain pages and files
    ZemFile                 an open file: the same commands without the token, and frames as a stream

    with ZemClient('http://127.0.0.1:8080', 'cam-1') as client:         # joins; leaves at the end
        with client.create_file('media/take', StreamDescriptor(MediaType.VIDEO, 'mjpg', 25, 1)) as take:
            take.write(0, picture)
            take.flush()                                                # now it is on the device
            for frame in take.frames():
                print(frame.position, len(frame.data))

Most replies say only that the reply was built. Where a cheap look tells whether the command worked, the method takes
that look and raises ZemRefused, with what a few more looks tell of why; where there is none, its docstring says how to
find out.

Sizes are bytes, times seconds unless a name says otherwise. An object belongs to one thread at a time. A client that
sends nothing for 50 s is removed by the server, and its files are closed: an idle one calls keep_alive().
"""

from __future__ import annotations

import http.client
import re
import selectors
import struct
import urllib.parse
import uuid
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from enum import IntEnum, IntFlag
from typing import BinaryIO
from xml.sax.saxutils import quoteattr

__all__ = [
    'ATTRIBUTES_NONE', 'ATTRIBUTE_DIRECTORY', 'ATTRIBUTE_NORMAL', 'ATTRIBUTE_READ_ONLY', 'CHANNEL_NONE',
    'MAX_CONFIG_BYTES', 'MAX_ENTRIES', 'MAX_PAYLOAD_BYTES', 'MAX_POSITION', 'Command', 'CreateFlags', 'EntryFlags',
    'Frame', 'FrameDescriptor', 'FrameFlags', 'FrameRate', 'FrameSummary', 'Marks', 'MediaType', 'OpenFlags',
    'ReadEntry', 'Result', 'Space', 'StreamDescriptor', 'StreamFlags', 'StripeFlags', 'Timecode', 'VolumeStatus',
    'WriteEntry', 'ZemClient', 'ZemConnectionError', 'ZemError', 'ZemFile', 'ZemProtocolError', 'ZemRefused',
    'is_special', 'result_name',
]


# Errors ---------------------------------------------------------------------------------------------------------------

class ZemError(Exception):
    """Base of all errors of this module but ValueError, which is a wrong argument: nothing was sent."""


class ZemConnectionError(ZemError):
    """The server cannot be reached, or the connection broke or timed out: the command may or may not have run. The next
    command connects anew; the client is still joined if it was."""


class ZemProtocolError(ZemError):
    """The answer is not one of a media server."""


class ZemRefused(ZemError):
    """The server refused, or what was asked for did not happen. The message says why as far as that can be asked of the
    server, or guessed ("perhaps"); the rest is in its log.

    result: the 32-bit result (see Result), or None if the answer does not tell.
    http_status: the answer's HTTP status; 200 with most failures.
    """

    def __init__(self, message: str, result: int | None = None, http_status: int = 200) -> None:
        super().__init__(message if result is None else f'{message}: {result_name(result)}')
        self.result = result
        self.http_status = http_status


# Constants ------------------------------------------------------------------------------------------------------------

class Command(IntEnum):
    """The command codes. The method of ZemClient has the same name in small letters."""
    CREATE_FILE = 1
    OPEN_FILE = 2
    READ_FRAME = 3
    WRITE_FRAME = 4
    CLOSE_FILE = 5
    GET_FILE_INFO = 6
    GET_FILE_INFO2 = 7
    GET_FRAME_DESC = 8
    GET_FRAME_DESC2 = 9
    FLUSH_BUFFERS = 10
    GET_FILE_MARKS = 11
    GET_FILE_MARKS2 = 12
    STRIPE_TIMECODE = 13
    UPDATE_CFG = 14
    JOIN = 15
    LEAVE = 16
    KEEP_ALIVE = 17
    SET_IO_REAL_TIME = 18
    QUERY_FILESYSTEM_SPACE = 19
    GET_FILE_ATTRIBS = 20
    DELETE_FILE = 21
    GET_FILESIZE = 22
    CREATE_DIRECTORY = 23
    MOVE_FILE = 24
    ERASE_SEGMENT = 25
    UPDATE_CFG_ATTR_STR = 26


# The code in a reply's header: a numbering of its own. The first entry belongs to no command.
_REPLY_CODES = (0, 2, 2, 3, 4, 5, 6, 6, 7, 7, 8, 9, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23)


class MediaType(IntEnum):
    ANY = 0  # in requests
    VIDEO = 1
    AUDIO = 2
    TIMECODE = 3
    DATA = 4


class FrameRate(IntEnum):
    """The rate in which positions count; FILE is the file's own."""
    FILE = 0
    FPS_23_976 = 1
    FPS_24 = 2
    FPS_25 = 3
    FPS_29_97 = 4
    FPS_30 = 5
    FPS_50 = 6
    FPS_59_94 = 7
    FPS_60 = 8


class OpenFlags(IntFlag):
    READ = 0x01
    WRITE = 0x02  # one writer a file


class CreateFlags(IntFlag):
    READ = 0x01
    WRITE = 0x02
    FAIL_IF_EXISTS = 0x08
    TRUNCATE = 0x10  # an existing file loses its frames


class EntryFlags(IntFlag):
    """Stream flags of a frame request's entry."""
    KEY_FRAME = 0x00000001  # writes
    STATUS_ONLY = 0x80000000  # reads: no data is moved


class FrameFlags(IntFlag):
    KEY = 1
    PRESENT = 2
    ERASED = 4
    CORRUPT = 8  # its checksum did not match


class StreamFlags(IntFlag):
    """Flags of a stream descriptor."""
    DROP_FRAME = 1
    STRIPED = 2
    BEING_WRITTEN = 4
    READ_ONLY = 8


class StripeFlags(IntFlag):
    NONE = 0
    DROP_FRAME = 1


class Result(IntEnum):
    """The results a client meets in a reply or in the status of a frame."""
    S_OK = 0
    E_NOTIMPL = 0x80004001
    E_HANDLE = 0x80070006
    E_OUTOFMEMORY = 0x8007000E
    CHECKSUM = 0x80070017
    E_INVALIDARG = 0x80070057
    END_OF_MEDIA = 0x8007044C
    DEVICE_ERROR = 0x8007045D
    NO_RESOURCES = 0x800705AA  # ask again later
    E_UNEXPECTED = 0x8000FFFF
    HOLE = 0x80040201  # the frame was never written
    ERASED = 0x80040202


def result_name(result: int) -> str:
    """For people: the number, and the name where it has one."""
    try:
        return f'{Result(result).name} (0x{result:08X})'
    except ValueError:
        return f'0x{result:08X}'


ATTRIBUTE_READ_ONLY = 0x01
ATTRIBUTE_DIRECTORY = 0x10
ATTRIBUTE_NORMAL = 0x80
ATTRIBUTES_NONE = 0xFFFFFFFF  # there is no such file or directory

CHANNEL_NONE = 255  # a join with this channel is answered without joining
MAX_POSITION = 0xFFFFFFFE
MAX_ENTRIES = 22  # of a frame request
MAX_CONFIG_BYTES = 16 << 20
MAX_PAYLOAD_BYTES = 251_658_240  # the most frame memory that a server has: no frame is larger

_HEADER_BYTES = 12
_ENTRY_BYTES = 96
_NAME_BYTES = 520
_DESCRIPTOR_WORD = 0x00010038  # version 1, 56 bytes
_ROOM_BYTES = 4096  # what a server lays a reply out in; no header and body is larger
_PAGE_BYTES = 65536  # more than any of the small pages
_DESC_BATCH = 200  # frames asked for at once: 2408 bytes of reply
_CHUNK_BYTES = 1 << 20
_SPECIAL_KINDS = frozenset((7, 8, 24))  # timecode, data, marks: a frame is 24 bytes in the stream table


def is_special(token: int) -> bool:
    """Whether the token's stream has 24-byte descriptors for frames instead of data."""
    return (token >> 24) & 0xFF in _SPECIAL_KINDS


# Records --------------------------------------------------------------------------------------------------------------

@dataclass(frozen=True)
class Timecode:
    """An address of a frame. As text HH:MM:SS:FF, with a semicolon before the frames in drop-frame counting."""
    hours: int = 0
    minutes: int = 0
    seconds: int = 0
    frames: int = 0
    drop_frame: bool = False
    color_frame: bool = False
    second_of_pair: bool = False  # above 30 frames/s two frames share an address

    @classmethod
    def parse(cls, text: str) -> Timecode:
        """Raises ValueError."""
        match = re.fullmatch(r'([01]\d|2[0-3]):([0-5]\d):([0-5]\d)([:;])([0-3]\d)', text, re.ASCII)
        if not match:
            raise ValueError(f'not a timecode HH:MM:SS:FF: {text!r}')
        return cls(int(match[1]), int(match[2]), int(match[3]), int(match[5]), drop_frame=match[4] == ';')

    @classmethod
    def unpack(cls, raw: bytes) -> Timecode:
        """From its 4 bytes."""
        frames, seconds, minutes, hours = ((byte >> 4) * 10 + (byte & 15) for byte in
                                           (raw[0] & 0x3F, raw[1] & 0x7F, raw[2], raw[3]))
        return cls(hours, minutes, seconds, frames, bool(raw[0] & 0x40), bool(raw[0] & 0x80), bool(raw[1] & 0x80))

    def pack(self) -> bytes:
        """Its 4 bytes. Raises ValueError for what two digits cannot hold."""
        digits = bytearray()
        for value, below in ((self.frames, 40), (self.seconds, 80), (self.minutes, 100), (self.hours, 100)):
            if not 0 <= value < below:
                raise ValueError(f'out of range in a timecode: {value}')
            digits.append(value // 10 << 4 | value % 10)
        digits[0] |= self.drop_frame << 6 | self.color_frame << 7
        digits[1] |= self.second_of_pair << 7
        return bytes(digits)

    def __str__(self) -> str:
        mark = ';' if self.drop_frame else ':'
        return f'{self.hours:02}:{self.minutes:02}:{self.seconds:02}{mark}{self.frames:02}'


@dataclass(frozen=True)
class StreamDescriptor:
    """What a stream is: 56 bytes on the wire. frame_count and flags are the server's; at create they are ignored."""
    media_type: MediaType
    codec: str = '\0\0\0\0'  # four characters
    rate_numerator: int = 0  # frames per second = numerator / denominator; both 0: no rate
    rate_denominator: int = 0
    width: int = 0  # pixels
    height: int = 0  # lines
    sample_rate: int = 0  # samples per second
    channels: int = 0
    bits_per_sample: int = 0
    frame_count: int = 0  # last position plus one
    start_timecode: Timecode = Timecode()  # of position 0
    flags: StreamFlags = StreamFlags(0)

    _LAYOUT = struct.Struct('<II4sIIIIIHHI4sI8x')

    def pack(self) -> bytes:
        """Raises ValueError."""
        codec = self.codec.encode('latin-1')
        if len(codec) != 4:
            raise ValueError(f'a codec has four characters: {self.codec!r}')
        return _pack(self._LAYOUT, _DESCRIPTOR_WORD, self.media_type, codec, self.rate_numerator, self.rate_denominator,
                     self.width, self.height, self.sample_rate, self.channels, self.bits_per_sample, self.frame_count,
                     self.start_timecode.pack(), self.flags)

    @classmethod
    def unpack(cls, raw: bytes) -> StreamDescriptor | None:
        """From 56 bytes; None where they are not a descriptor, which is how the server says that it has none."""
        word, media_type, codec, *numbers, timecode, flags = cls._LAYOUT.unpack(raw)
        if word != _DESCRIPTOR_WORD or not 1 <= media_type <= 4:
            return None
        return cls(MediaType(media_type), codec.decode('latin-1'), *numbers, Timecode.unpack(timecode),
                   StreamFlags(flags))


@dataclass(frozen=True)
class FrameDescriptor:
    """24 bytes: the frame of a special stream. Of a mark that is written only the position counts."""
    position: int = 0
    data_size: int = 0
    flags: FrameFlags = FrameFlags(0)
    timecode: Timecode = Timecode()
    time_100ns: int = 0  # presentation time from the start of the file, in units of 100 ns

    _LAYOUT = struct.Struct('<IIII4sI')

    def pack(self) -> bytes:
        """Raises ValueError."""
        return _pack(self._LAYOUT, self.data_size, self.position, self.flags, self.time_100ns & 0xFFFFFFFF,
                     self.timecode.pack(), self.time_100ns >> 32)

    @classmethod
    def unpack(cls, raw: bytes) -> FrameDescriptor:
        size, position, flags, low, timecode, high = cls._LAYOUT.unpack(raw)
        return cls(position, size, FrameFlags(flags), Timecode.unpack(timecode), high << 32 | low)


@dataclass(frozen=True)
class FrameSummary:
    """What get_frame_desc tells of a frame. All zero: a hole, behind the end, or a failure; a read tells which."""
    data_size: int
    flags: FrameFlags
    timecode: Timecode


@dataclass(frozen=True)
class Marks:
    first: int  # a position; 0 if never set
    second: int  # a position; the number of frames if never set


@dataclass(frozen=True)
class Space:
    total_bytes: int
    free_bytes: int


@dataclass(frozen=True)
class VolumeStatus:
    error: int  # 0: none
    free_bytes: int
    total_bytes: int


@dataclass(frozen=True)
class ReadEntry:
    """One stream of a read request."""
    token: int
    position: int  # counted in the channel's frame rate
    flags: EntryFlags = EntryFlags(0)
    user_data: int = 0  # 64 bits, come back in Frame.user_data


@dataclass(frozen=True)
class WriteEntry:
    """One stream of a write request: the frame's bytes, or for a special token its FrameDescriptor."""
    token: int
    position: int  # 0 to MAX_POSITION, in any order; a frame that is there is replaced
    frame: bytes | bytearray | memoryview | FrameDescriptor
    flags: EntryFlags = EntryFlags(0)


@dataclass(frozen=True)
class Frame:
    """One stream of a read's answer."""
    status: int  # 0, or a Result: the frame could not be had
    token: int
    position: int
    data: bytes  # empty with a failure, with STATUS_ONLY and for special tokens
    descriptor: FrameDescriptor | None  # special tokens only
    user_data: int

    @property
    def ok(self) -> bool:
        return self.status == Result.S_OK


def _pack(layout: struct.Struct, *values: object) -> bytes:
    try:
        return layout.pack(*values)
    except struct.error as error:
        raise ValueError(f'a number does not fit its field: {error}') from None


def _position(position: int, last: int = MAX_POSITION) -> int:
    if not 0 <= position <= last:
        raise ValueError(f'positions are 0 to {last}: {position}')
    return position


_WORD, _WORD2, _WORD3, _LONG = (struct.Struct(form) for form in ('<I', '<II', '<III', '<Q'))


def _name(name: str) -> bytes:
    """A name field. Raises ValueError; what else the server refuses in names, it refuses itself."""
    if not isinstance(name, str):
        raise TypeError(f'a name is a str: {name!r}')
    raw = name.encode('utf-16-le')
    if '\0' in name or len(raw) > _NAME_BYTES - 2:
        raise ValueError(f'a name has at most 259 characters and no NUL: {name!r}')
    return raw.ljust(_NAME_BYTES, b'\0')


def _name_fault(name: str) -> str:
    """Why no server takes the name, if it is such a one."""
    if found := re.search(r'[\x00-\x1f:*?"<>|]', name):
        return f'a name has no {found[0]!r} in it'
    for part in re.split(r'[/\\]', name):
        if part == '..':
            return "a name does not lead upwards: '..' is refused"
        if part != '.' and part.endswith(('.', ' ')):
            return 'a name ends in no dot and no blank'
        if len(part.encode('utf-8')) > 255:
            return 'a part of a name has at most 255 bytes'
        if re.fullmatch(r'(CON|PRN|AUX|NUL|CONIN\$|CONOUT\$|COM[0-9]|LPT[0-9])(\..*)?', part, re.IGNORECASE):
            return f'{part!r} is the name of a device'
    return ''


def _name_block(name: str, aux: str, media_type: MediaType, flags: OpenFlags) -> bytes:
    return _name(name) + _name(aux) + _pack(_WORD2, media_type, flags)


# The connection -------------------------------------------------------------------------------------------------------

class _Entity:
    """One answer. What is read is counted against Content-Length: too short, too long and none are errors."""

    def __init__(self, response: http.client.HTTPResponse) -> None:
        self._response = response
        self.status, self.reason = response.status, response.reason
        lengths = response.headers.get_all('Content-Length', [])
        if len(lengths) != 1 or not re.fullmatch(r'[0-9]{1,18}', lengths[0]) or response.chunked:
            raise ZemProtocolError('the answer has no proper Content-Length')
        self.length = self.left = int(lengths[0])

    def header(self, name: str) -> str:
        return self._response.headers.get(name, '')

    def read(self, size: int) -> bytes:
        """Exactly so many bytes. Raises ZemProtocolError if the entity has fewer: before it allocates anything."""
        if size > self.left:
            raise ZemProtocolError(f'the answer has {self.left} bytes where {size} belong')
        try:
            data = self._response.read(size) if size else b''
        except (OSError, http.client.HTTPException) as error:
            raise ZemConnectionError(f'the connection broke within an answer: {error}') from error
        if len(data) != size:
            raise ZemConnectionError('the server closed the connection within an answer')
        self.left -= size
        return data


class _Wire:
    """One persistent connection. An exchange that breaks off closes it, and the next one connects anew."""

    def __init__(self, server: str, timeout_s: float) -> None:
        url = urllib.parse.urlsplit(server)
        if url.scheme != 'http' or not url.hostname or url.path.strip('/') or url.query or url.username:
            raise ValueError(f'a server is given as http://HOST:PORT, not {server!r}')
        self._connection = http.client.HTTPConnection(url.hostname, url.port or 80, timeout=timeout_s)

    def close(self) -> None:
        self._connection.close()

    def _notice_hang_up(self) -> None:
        """An idle connection that has something to read was closed by the server. To see that before sending keeps a
        command from being lost, or from having to be repeated."""
        if self._connection.sock is None:
            return
        with selectors.DefaultSelector() as selector:
            selector.register(self._connection.sock, selectors.EVENT_READ)
            if selector.select(0):
                self.close()

    @contextmanager
    def exchange(self, method: str, path: str, headers: Sequence[tuple[str, str | bytes]] = (),
                 parts: Sequence[bytes | memoryview] = ()) -> Iterator[_Entity]:
        """Sends a request, whose entity is the parts one after another, and gives its answer to read. What of the
        answer is not read by the end costs the connection; so does an answer that is none."""
        connection = self._connection
        try:
            self._notice_hang_up()
            connection.putrequest(method, path, skip_accept_encoding=True)
            for name, value in headers:
                connection.putheader(name, value)
            if parts:
                connection.putheader('Content-Length', str(sum(len(part) for part in parts)))
            connection.endheaders(parts[0] if parts else None)
            for part in parts[1:]:
                connection.send(part)
            response = connection.getresponse()
        except (OSError, http.client.HTTPException) as error:
            self.close()
            raise ZemConnectionError(f'no answer from {connection.host}:{connection.port}: {error!r}') from error
        except BaseException:
            self.close()
            raise
        left = True
        try:
            entity = _Entity(response)
            try:
                yield entity
            finally:
                left = entity.left > 0
        except ZemProtocolError:
            left = True
            raise
        finally:
            response.close()
            if left:
                self.close()


def _failure(entity: _Entity, name: str | None = None, use: str = '') -> ZemRefused:
    """An answer without a body that tells more: the reason has the result, if there is one. name and use: of a whole
    file, and what was to be done with it."""
    match = re.search(r'0x([0-9a-fA-F]{1,8})\b', entity.reason)
    text = f'the server answered {entity.status} {entity.reason}'
    if name is not None:
        text = f'{use} of {name!r} did not work: {text}'
        if entity.status == 400:
            other = 'the server may not read it' if use == 'GET' else 'somebody writes it, or the server may not delete it'
            text += f'; perhaps there is no such file, or {other}'
    return ZemRefused(text, int(match[1], 16) if match else None, entity.status)


# The client -----------------------------------------------------------------------------------------------------------

class ZemClient:
    """A client of a server: known by its ID from join() to leave(), over any number of connections.

    server: http://HOST:PORT. client_id: 1 to 259 characters, case-sensitive; None is an ID that nobody else has.
    channel: a number for the server's log. timeout_s: how long a connection may be silent within an exchange.
    agent: NAME (PRODUCT/VERSION); the server's log names the client by what stands from the parenthesis on, and warns
    of a version that is not its own. Without a slash there is no version to warn of.

    As a context manager it joins and leaves. Nothing is sent before that. Every method that sends may raise
    ZemConnectionError, ZemProtocolError and ZemRefused; wrong arguments raise ValueError and send nothing.
    """

    def __init__(self, server: str = 'http://127.0.0.1:8080', client_id: str | None = None, *, channel: int = 0,
                 timeout_s: float = 60, agent: str = 'zemclient (python)') -> None:
        self.id = uuid.uuid4().hex if client_id is None else client_id
        units = len(self.id.encode('utf-16-le')) // 2
        if not 1 <= units <= 259 or not self.id.isprintable() or self.id.strip() != self.id:
            raise ValueError(f'a client ID has 1 to 259 printable characters without outer blanks: {self.id!r}')
        self.channel = channel
        self._wire = _Wire(server, timeout_s)
        # The ID comes before every header that is not one of HTTP's own.
        self._headers = (('User-Agent', agent), ('Zem-Id', self.id.encode('utf-8')))
        self._trans_id = 0

    def __enter__(self) -> ZemClient:
        """Joins, and looks whether that worked: raises ZemRefused."""
        try:
            self.join()
            if self.channel != CHANNEL_NONE and self.query_filesystem_space().total_bytes == 0:
                raise ZemRefused(f'the server did not let {self.id!r} join')
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, kind: object, error: BaseException | None, trace: object) -> None:
        """Leaves, which closes the client's files. What went wrong in the block outweighs what goes wrong here."""
        try:
            self.leave()
        except ZemError:
            if error is None:
                raise
        finally:
            self.close()

    def close(self) -> None:
        """Closes the connection, without leaving. The next command opens a new one."""
        self._wire.close()

    # One command: header and body out, header and body in.

    @contextmanager
    def _command(self, command: Command, parts: Sequence[bytes | memoryview]) -> Iterator[tuple[_Entity, bytes]]:
        """Sends a body (the first part) and its payload; gives the entity and the reply's body, whose header agrees
        with the request. The frame data is left to be read. Raises ZemRefused for every HTTP failure but that of a read
        with its stream table."""
        self._trans_id = self._trans_id + 1 if self._trans_id < 0xFFFFFFFE else 1
        head = _WORD3.pack(self._trans_id, command, len(parts[0])) + parts[0]
        with self._wire.exchange('POST', '/zem/', self._headers, [head, *parts[1:]]) as entity:
            if entity.header('Content-Type') != 'application/octet-string':
                if entity.left <= _PAGE_BYTES:
                    entity.read(entity.left)
                if entity.status == 200:
                    raise ZemProtocolError('the answer has no binary header')
                raise _failure(entity)
            size = entity.header('zem-resphdr-len')
            if not re.fullmatch(r'[0-9]{1,4}', size) or not _HEADER_BYTES + 4 <= int(size) <= _ROOM_BYTES:
                raise ZemProtocolError(f'zem-resphdr-len is {size!r}')
            reply = entity.read(int(size))
            trans_id, code, declared = _WORD3.unpack_from(reply)
            body = reply[_HEADER_BYTES:]
            if trans_id != self._trans_id or declared != len(body):
                raise ZemProtocolError(f'a reply to transId {trans_id} with {declared} bytes, not to {self._trans_id} '
                                       f'with {len(body)}')
            if entity.status != 200 and len(body) == 4:
                raise ZemRefused(f'{command.name} failed', _WORD.unpack(body)[0], entity.status)
            if code != _REPLY_CODES[command] or entity.status not in (200, 500):
                raise ZemProtocolError(f'reply code {code}, HTTP {entity.status}, to {command.name}')
            yield entity, body

    def _ask(self, command: Command, body: bytes = b'', reply_bytes: int = 4) -> bytes:
        """A command without frame data: the reply's body, which is reply_bytes long or longer."""
        with self._command(command, [body]) as (entity, reply):
            if entity.status != 200 or entity.left or len(reply) < reply_bytes:
                raise ZemProtocolError(f'{command.name} was answered with HTTP {entity.status}, {len(reply)} bytes and '
                                       f'{entity.left} of data')
            return reply

    # Being a client.

    def join(self) -> None:
        """Joins; joining again changes nothing. Whether it worked is to be seen by query_filesystem_space('')."""
        self._ask(Command.JOIN, _pack(_WORD, self.channel))

    def leave(self) -> None:
        """Closes the client's files and forgets it. No error if it has not joined."""
        self._ask(Command.LEAVE)

    def keep_alive(self) -> None:
        """To be sent by an idle client every 40 s or more often. Does not tell whether the client is still joined."""
        self._ask(Command.KEEP_ALIVE)

    def set_io_real_time(self) -> None:
        """Makes this client the one whose reads and writes overtake all others."""
        self._ask(Command.SET_IO_REAL_TIME)

    # Why something did not work: no answer tells, so what can be asked is asked afterwards.

    def _refused(self, what: str, why: Callable[..., str], *arguments: object) -> ZemRefused:
        try:
            reason = why(*arguments)
        except ZemError:  # explains nothing: what failed first is what counts
            reason = ''
        return ZemRefused(f'{what}: {reason}' if reason else what)

    def _why_absent(self, name: str, folders_needed: bool) -> str | None:
        """None: it is there after all; '': there is nothing against the name."""
        if self.query_filesystem_space().total_bytes == 0:
            return 'this client has not joined, or the volume is gone'
        if self.exists(name):
            return None
        if fault := _name_fault(name):
            return fault
        if name.startswith(('/', '\\')):
            return 'a name counts from the root of the volume, without a slash in front'
        for end in re.finditer(r'[/\\]', name):
            folder = name[:end.start()]
            attributes = self.get_file_attribs(folder)
            if attributes != ATTRIBUTES_NONE and not attributes & ATTRIBUTE_DIRECTORY:
                return f'{folder!r} is a file, and no directory'
            if attributes == ATTRIBUTES_NONE and folders_needed:
                return f'there is no directory {folder!r}'
        return ''

    def _why_not_opened(self, name: str, aux: str, media_type: MediaType, writing: bool) -> str:
        absent = self._why_absent(name, True)
        if absent is not None:
            return absent or 'there is no such file'
        if self.get_file_attribs(name) & ATTRIBUTE_DIRECTORY:
            return 'it is a directory'
        if self._known(_name_block(name, '', MediaType.ANY, OpenFlags.READ)) is None:
            return ('it is there; perhaps it is no media file, is damaged or cut off, or the server may not read it'
                    if self.get_filesize(name) else 'it is empty')
        stream = self._known(_name_block(name, aux, media_type, OpenFlags.READ))
        if stream is None:
            return 'it has no stream' + (f' {aux!r}' if aux else '') + (' of that media type' if media_type else '')
        if not writing:
            return ''
        if stream.flags & StreamFlags.READ_ONLY:
            return 'a file of a foreign format is only read'
        if stream.flags & StreamFlags.BEING_WRITTEN:
            return 'it is open for writing already'
        return 'it can be read; perhaps another server writes it, or this one may not'

    def _why_not_created(self, name: str, aux: str, stream: StreamDescriptor, flags: CreateFlags) -> str:
        absent = self._why_absent(name, False)
        if absent is not None:
            return absent or 'perhaps the volume is full, or the server may not write there'
        if flags & CreateFlags.FAIL_IF_EXISTS:
            return 'it exists'
        return self._why_not_opened(name, aux, stream.media_type, True)

    @staticmethod
    def _why_not_striped(stream: StreamDescriptor, start: Timecode, flags: StripeFlags) -> str:
        if stream.flags & StreamFlags.READ_ONLY:
            return 'a file of a foreign format is only read'
        if start.hours > 23 or start.minutes > 59 or start.seconds > 59:
            return f'there is no {start} in a day'
        over, under = stream.rate_numerator, stream.rate_denominator
        if not over or not under:
            return 'it has no frame rate'
        nominal = (over + under // 2) // under
        if start.drop_frame or flags & StripeFlags.DROP_FRAME:
            if over * 1001 not in (under * 30000, under * 60000):
                return f'drop-frame counts 30000/1001 or 60000/1001 frames a second, it has {over}/{under}'
            if start.minutes % 10 and not start.seconds and start.frames < 2:
                return 'drop-frame leaves this number out'
        addresses = nominal // 2 if nominal > 30 else nominal
        if start.frames >= addresses:
            return f'the last number of a second is {addresses - 1}'
        # Who writes it at this server is no hindrance.
        return '' if stream.flags & StreamFlags.BEING_WRITTEN else 'perhaps another server writes it, or this one may not'

    # Files.

    def _token(self, command: Command, body: bytes) -> int:
        return _LONG.unpack_from(self._ask(command, body, 16), 8)[0]

    def create_file(self, name: str, stream: StreamDescriptor, aux: str = '',
                    flags: CreateFlags = CreateFlags.READ | CreateFlags.WRITE) -> ZemFile:
        """Makes a file and the directories on its way, and opens it for reading and writing. An existing file is opened
        as it is, unless the flags say otherwise. Raises ZemRefused."""
        body = _name(name) + _name(aux) + stream.pack() + _pack(_WORD, flags)
        if token := self._token(Command.CREATE_FILE, body):
            return ZemFile(self, token, name)
        raise self._refused(f'CREATE_FILE of {name!r} did not work', self._why_not_created, name, aux, stream, flags)

    def open_file(self, name: str, aux: str = '', media_type: MediaType = MediaType.ANY,
                  flags: OpenFlags = OpenFlags.READ) -> ZemFile:
        """Opens a stream of a file: aux '' the first, 'v0', 'a1' … one of its kind, 'tc' timecode, 'mk' the marks.
        Raises ZemRefused."""
        writable = bool(flags & OpenFlags.WRITE)
        if token := self._token(Command.OPEN_FILE, _name_block(name, aux, media_type, flags) + b'\0\0'):
            return ZemFile(self, token, name, writable)
        what = f'OPEN_FILE of {name!r} did not work'
        raise self._refused(what, self._why_not_opened, name, aux, media_type, writable)

    def close_file(self, token: int) -> None:
        """Puts the file on the device, then forgets the token, whatever the device said: flush_buffers first, and read
        back, where that matters."""
        self._ask(Command.CLOSE_FILE, _pack(_LONG, token))

    # Frames.

    def read_frame(self, entries: Sequence[ReadEntry]) -> list[Frame]:
        """Reads a frame of each of 1 to 22 streams: of any files and positions, also several of one stream. A frame
        that cannot be had is no error here: see Frame.status. Raises ZemRefused if the read was never begun."""
        if not 1 <= len(entries) <= MAX_ENTRIES:
            raise ValueError(f'a frame request has 1 to {MAX_ENTRIES} entries, not {len(entries)}')
        layout = struct.Struct('<8xQII56xQ8x')
        body = _pack(struct.Struct('<II8x'), 0, len(entries)) + b''.join(
            _pack(layout, entry.token, _position(entry.position, 0xFFFFFFFF), entry.flags, entry.user_data)
            for entry in entries)
        with self._command(Command.READ_FRAME, [body]) as (entity, table):
            if len(table) == 4:
                raise ZemRefused('the read was not begun: not joined, or the server is short of resources')
            if len(table) < 8 + _ENTRY_BYTES * len(entries) or _WORD.unpack_from(table, 4)[0] != len(entries):
                raise ZemProtocolError('the stream table is not that of the request')
            return [self._frame(entity, table[8 + _ENTRY_BYTES * i:][:_ENTRY_BYTES], entry, i + 1 == len(entries))
                    for i, entry in enumerate(entries)]

    @staticmethod
    def _frame(entity: _Entity, raw: bytes, entry: ReadEntry, last: bool) -> Frame:
        status, token, position, buffers, length, user_data = struct.unpack('<I4xQI4xI4xI44xQ8x', raw)
        if (token, position, user_data) != (entry.token, entry.position, entry.user_data):
            raise ZemProtocolError('an entry of the stream table is not the one that was asked for')
        special = is_special(token)
        if special:
            length = 0
        elif (buffers > 1 or length > MAX_PAYLOAD_BYTES
              or length and (status or entry.flags & EntryFlags.STATUS_ONLY)):
            raise ZemProtocolError('an entry of the stream table contradicts itself')
        data = entity.read(length)
        if last and entity.left:
            raise ZemProtocolError(f'{entity.left} bytes of data belong to no stream')
        return Frame(status, token, position, data,
                     FrameDescriptor.unpack(raw[24:48]) if special and status == 0 else None, user_data)

    def write_frame(self, entries: Sequence[WriteEntry]) -> None:
        """Writes a frame of each of 1 to 22 streams. It returns when the server has received them: whether they were
        written is to be seen, after a flush_buffers, by reading them with EntryFlags.STATUS_ONLY."""
        if not 1 <= len(entries) <= MAX_ENTRIES:
            raise ValueError(f'a frame request has 1 to {MAX_ENTRIES} entries, not {len(entries)}')
        body = bytearray(_pack(struct.Struct('<II8x'), 0, len(entries)))
        payload: list[memoryview] = []
        for entry in entries:
            if is_special(entry.token) != isinstance(entry.frame, FrameDescriptor):
                raise ValueError('a special token takes a FrameDescriptor, an ordinary one bytes')
            body += _pack(struct.Struct('<8xQII'), entry.token, _position(entry.position), entry.flags)
            if isinstance(entry.frame, FrameDescriptor):
                body += entry.frame.pack().ljust(72, b'\0')
            else:  # one buffer: the server does not keep how a frame was cut
                payload.append(memoryview(entry.frame).cast('B'))
                body += _pack(struct.Struct('<I4xI60x'), 1, len(payload[-1]))
        if sum(len(data) for data in payload) > MAX_PAYLOAD_BYTES:
            raise ValueError(f'the frames of a request have at most {MAX_PAYLOAD_BYTES} bytes')
        with self._command(Command.WRITE_FRAME, [bytes(body), *payload]) as (entity, _):
            if entity.left:
                raise ZemProtocolError('a write was answered with data')

    # Asking about a file.

    def get_file_info(self, token: int) -> StreamDescriptor:
        """Raises ZemRefused."""
        stream = StreamDescriptor.unpack(self._ask(Command.GET_FILE_INFO, _pack(_LONG, token), 60)[4:60])
        if stream is None:
            raise ZemRefused(f'the server knows nothing of token 0x{token:x}')
        return stream

    def _known(self, block: bytes) -> StreamDescriptor | None:
        return StreamDescriptor.unpack(self._ask(Command.GET_FILE_INFO2, block, 60)[4:60])

    def get_file_info2(self, name: str, aux: str = '', media_type: MediaType = MediaType.ANY) -> StreamDescriptor:
        """The same by name. Raises ZemRefused."""
        stream = self._known(_name_block(name, aux, media_type, OpenFlags.READ))
        if stream is None:
            what = f'the server knows nothing of {name!r}'
            raise self._refused(what, self._why_not_opened, name, aux, media_type, False)
        return stream

    @staticmethod
    def _summaries(reply: bytes, count: int) -> list[FrameSummary]:
        if _WORD.unpack_from(reply, 4)[0] != count:
            raise ZemProtocolError('the list of frames is not as long as was asked for')
        return [FrameSummary(size, FrameFlags(flags), Timecode.unpack(timecode))
                for size, flags, timecode in struct.iter_unpack('<II4s', reply[8:8 + 12 * count])]

    def get_frame_desc(self, token: int, position: int, count: int,
                       rate: FrameRate = FrameRate.FILE) -> list[FrameSummary]:
        """Any number of frames from a position on: more than fit one reply are asked for in pieces. Positions behind
        the end, and every position of a token that is not open, are all zero."""
        _position(position)
        if count < 0 or position + count > MAX_POSITION + 1:
            raise ValueError(f'there are no {count} positions from {position} on: they are 0 to {MAX_POSITION}')
        found: list[FrameSummary] = []
        layout = struct.Struct('<QIII')
        for first in range(position, position + count, _DESC_BATCH):
            size = min(_DESC_BATCH, position + count - first)
            body = _pack(layout, token, first, size, rate)
            found += self._summaries(self._ask(Command.GET_FRAME_DESC, body, 8 + 12 * size), size)
        return found

    def get_frame_desc2(self, name: str, position: int, count: int, aux: str = '',
                        media_type: MediaType = MediaType.ANY) -> list[FrameSummary]:
        """The same by name, for completeness: open the file instead. The server overwrites the name's third character
        with the one whose code is count, so it has to be that already, and the last one; a ValueError keeps other names
        from being answered with what is true of another file. At most 87 frames are told of for certain."""
        if not 1 <= count <= 87 or len(name) != 3 or ord(name[2]) != count:
            raise ValueError('only names of three characters, whose third has the code count, are found: open the file')
        body = _name_block(name, aux, media_type, OpenFlags.READ) + _pack(_WORD2, position, count)
        return self._summaries(self._ask(Command.GET_FRAME_DESC2, body, 8 + 12 * count), count)

    def get_file_marks(self, token: int) -> Marks:
        """Raises ZemRefused. Marks are set by writing to the stream 'mk'."""
        # What stands at offset 8 comes back unchanged when the query failed: two values of it do not both.
        for unchanged in (0xFFFFFFFF, 0):
            body = _pack(struct.Struct('<QI'), token, unchanged)
            marks = Marks(*_WORD2.unpack_from(self._ask(Command.GET_FILE_MARKS, body, 12), 4))
            if marks.second != unchanged:
                return marks
        raise ZemRefused(f'the server knows no marks of token 0x{token:x}')

    def get_file_marks2(self, name: str, aux: str = '', media_type: MediaType = MediaType.ANY) -> Marks:
        """The same by name. Raises ZemRefused."""
        self.get_file_info2(name, aux, media_type)  # the reply does not tell whether there is such a file
        body = _name_block(name, aux, media_type, OpenFlags.READ)
        return Marks(*_WORD2.unpack_from(self._ask(Command.GET_FILE_MARKS2, body, 12), 4))

    # Changing a file.

    def flush_buffers(self, token: int) -> None:
        """Returns when what was written to the file is on the device. A failed write shows when the frame is read."""
        self._ask(Command.FLUSH_BUFFERS, _pack(_LONG, token))

    def stripe_timecode(self, name: str, start: Timecode, flags: StripeFlags = StripeFlags.NONE, aux: str = '',
                        media_type: MediaType = MediaType.ANY) -> None:
        """Gives every frame, also those still to come, a running timecode. Raises ZemRefused."""
        block = _name_block(name, aux, media_type, OpenFlags.READ)
        self._ask(Command.STRIPE_TIMECODE, block + start.pack() + _pack(_WORD, flags))
        stream = self.get_file_info2(name, aux, media_type)
        drop_frame = StreamFlags.DROP_FRAME if start.drop_frame or flags & StripeFlags.DROP_FRAME else 0
        told, asked = (str(timecode).replace(';', ':') for timecode in (stream.start_timecode, start))
        if stream.flags & (StreamFlags.STRIPED | StreamFlags.DROP_FRAME) != StreamFlags.STRIPED | drop_frame or told != asked:
            why = self._why_not_striped(stream, start, flags)
            raise ZemRefused(f'{name!r} was not striped' + (f': {why}' if why else ''))

    def erase_segment(self, token: int, first: int, end: int, media_type: MediaType = MediaType.ANY) -> None:
        """Erases the frames from first up to, but not including, end. It worked if get_frame_desc shows them ERASED."""
        body = _pack(struct.Struct('<QIII'), token, _position(first), _position(end, MAX_POSITION + 1), media_type)
        self._ask(Command.ERASE_SEGMENT, body)

    # The volume.

    def query_filesystem_space(self, name: str = '') -> Space:
        """Of the volume that a file or directory lies on. A total of 0: the client has not joined, or the volume is gone.
        Raises ZemRefused for a name that is not there."""
        # A client that has not joined gets the name it sent back where the numbers stand: the empty one is 0.
        if name and self.query_filesystem_space().total_bytes == 0:
            return Space(0, 0)
        space = Space(*struct.unpack_from('<QQ', self._ask(Command.QUERY_FILESYSTEM_SPACE, _name(name), 24), 8))
        if name and space.total_bytes == 0:
            self._demand(name, 'QUERY_FILESYSTEM_SPACE')
        return space

    def get_file_attribs(self, name: str) -> int:
        """ATTRIBUTE_ bits; ATTRIBUTES_NONE if there is neither such a file nor such a directory."""
        return _WORD.unpack_from(self._ask(Command.GET_FILE_ATTRIBS, _name(name), 8), 4)[0]

    def exists(self, name: str) -> bool:
        return self.get_file_attribs(name) != ATTRIBUTES_NONE

    def get_filesize(self, name: str) -> int:
        """Bytes of the file as it is stored. Raises ZemRefused if there is none."""
        size, = _LONG.unpack_from(self._ask(Command.GET_FILESIZE, _name(name), 16), 8)
        if size == 0:
            self._demand(name, 'GET_FILESIZE')
        return size

    def _why_missing(self, name: str) -> str:
        return self._why_absent(name, True) or 'there is no such file'

    def _why_not_named(self, name: str) -> str:
        return self._why_absent(name, True) or 'perhaps the volume is full, or the server may not write there'

    def _why_not_moved(self, source: str, target: str) -> str:
        into_itself = target.replace('\\', '/').startswith(source.replace('\\', '/') + '/')
        return 'it cannot lie in itself' if into_itself else self._why_not_named(target)

    def _demand(self, name: str, what: str) -> None:
        if not self.exists(name):
            raise self._refused(f'{what} of {name!r} did not work', self._why_missing, name)

    def _demand_free(self, name: str, what: str) -> None:
        if self.exists(name):
            raise ZemRefused(f'{what} {name!r} did not work: it exists')

    def delete_file(self, name: str) -> None:
        """Files only, and none that is being written; who reads it keeps it until the close. Raises ZemRefused."""
        self._demand(name, 'DELETE_FILE')
        self._ask(Command.DELETE_FILE, _name(name))
        attributes = self.get_file_attribs(name)
        if attributes != ATTRIBUTES_NONE:
            why = ('it is a directory' if attributes & ATTRIBUTE_DIRECTORY else
                   'perhaps it is open for writing, or the server may not open it, or not write in its directory')
            raise ZemRefused(f'DELETE_FILE of {name!r} did not work: {why}')

    def create_directory(self, name: str) -> None:
        """The directory above must be there. Raises ZemRefused."""
        self._demand_free(name, 'CREATE_DIRECTORY of')
        self._ask(Command.CREATE_DIRECTORY, _name(name))
        if not self.exists(name):
            raise self._refused(f'CREATE_DIRECTORY of {name!r} did not work', self._why_not_named, name)

    def move_file(self, source: str, target: str) -> None:
        """Moves or renames a file or directory; nothing may be at the new name. Raises ZemRefused."""
        self._demand(source, 'MOVE_FILE')
        self._demand_free(target, 'MOVE_FILE to')
        self._ask(Command.MOVE_FILE, _name(source) + _name(target))
        if not self.exists(target):
            raise self._refused(f'MOVE_FILE to {target!r} did not work', self._why_not_moved, source, target)

    # Configuration of the channel: lasts until the client leaves.

    def update_cfg(self, **attributes: str | int) -> None:
        """Sets all the attributes or none, as in update_cfg(frameRate='25', readAhead=8). Raises ZemRefused, with the
        result."""
        pairs = ''.join(f' {name}={quoteattr(str(value))}' for name, value in attributes.items())
        body = f'<channelConfig{pairs}/>\0'.encode('utf-16-le')
        if len(body) > MAX_CONFIG_BYTES:
            raise ValueError('a configuration has at most 16 MiB')
        try:
            status, http_status = _WORD.unpack_from(self._ask(Command.UPDATE_CFG, body))[0], 200
        except ZemRefused as error:
            status, http_status = error.result, error.http_status
        if status:
            why = ': not joined, or what the server does not know' if status == Result.E_INVALIDARG else ''
            raise ZemRefused('UPDATE_CFG failed' + why, status, http_status)

    def update_cfg_attr_str(self, name: str, value: str) -> None:
        """Sets one attribute. Whether that worked cannot be seen: update_cfg tells."""
        if '\0' in value:
            raise ValueError('a value has no NUL')
        self._ask(Command.UPDATE_CFG_ATTR_STR, _name(name) + (value + '\0').encode('utf-16-le'))

    # Plain pages and files, which need no join.

    def _page(self, path: str) -> str:
        with self._wire.exchange('GET', path) as entity:
            if entity.left > _PAGE_BYTES:
                raise ZemProtocolError(f'{path} has {entity.left} bytes')
            text = entity.read(entity.left)
            if entity.status != 200:
                raise _failure(entity)
        try:
            return text.decode('utf-8')
        except UnicodeDecodeError as error:
            raise ZemProtocolError(f'{path} is not UTF-8') from error

    def status(self) -> VolumeStatus:
        """Space of the server's volume, measured by it every 10 s at most."""
        match = re.fullmatch(r'([0-9a-fA-F]{1,8}) ([0-9]{1,20}) ([0-9]{1,20})', self._page('/media/status'))
        if not match:
            raise ZemProtocolError('/media/status is not one of a media server')
        return VolumeStatus(int(match[1], 16), int(match[2]), int(match[3]))

    def clients(self) -> list[str]:
        """The IDs of the joined clients; of very many only the first, as the page ends after 5199 bytes."""
        text = self._page('/media/clients')
        return [] if text == 'No Clients\r\n' else text.split('\r\n')[:-1]

    @staticmethod
    def _path(name: str) -> str:
        path = '/' + name.replace('\\', '/').lstrip('/')
        if not re.match(r'/(media|zem)/', path, re.IGNORECASE):
            raise ValueError(f'only what lies in media/ or zem/ can be had whole: {name!r}')
        return urllib.parse.quote(path)

    def get(self, name: str, target: BinaryIO) -> int:
        """Downloads a whole file as it is stored, piece by piece; returns its bytes. Raises ZemRefused if there is none
        (then nothing was written), and what the target raises."""
        if not hasattr(target, 'write'):
            raise TypeError(f'the target is a file that is open for writing bytes, not a name: {target!r}')
        path = self._path(name)
        if re.match('/media/(status|clients)', path, re.IGNORECASE):
            raise ValueError(f'a page of the server hides the files of this name: {name!r}')
        with self._wire.exchange('GET', path) as entity:
            if entity.status != 200:
                raise _failure(entity, name, 'GET')
            while entity.left:
                target.write(entity.read(min(entity.left, _CHUNK_BYTES)))
            return entity.length

    def delete(self, name: str) -> None:
        """Deletes a file by HTTP DELETE, without having joined. Raises ZemRefused."""
        with self._wire.exchange('DELETE', self._path(name)) as entity:
            if entity.left <= _PAGE_BYTES:
                entity.read(entity.left)
            if entity.status != 200:
                raise _failure(entity, name, 'DELETE')


class ZemFile:
    """An open stream of a file. As a context manager it is closed at the end. See the methods of ZemClient for what the
    commands raise and tell. What a file cannot do raises ValueError, and nothing is sent: any change of one that is not
    open for writing, and everything, but for another close, of one that is closed."""

    def __init__(self, client: ZemClient, token: int, name: str, writable: bool = True) -> None:
        self.client, self.token, self.name, self.writable = client, token, name, writable

    def __enter__(self) -> ZemFile:
        return self

    def __exit__(self, kind: object, error: BaseException | None, trace: object) -> None:
        try:
            self.close()
        except ZemError:
            if error is None:
                raise

    def close(self) -> None:
        """Puts the file on the device and closes it. A second close does nothing."""
        token, self.token = self.token, 0
        if token:
            self.client.close_file(token)

    def _open_token(self, changing: bool = False) -> int:
        if not self.token:
            raise ValueError(f'{self.name!r} is closed')
        if changing and not self.writable:
            raise ValueError(f'{self.name!r} is open for reading only: open it with OpenFlags.READ | OpenFlags.WRITE')
        return self.token

    def info(self) -> StreamDescriptor:
        return self.client.get_file_info(self._open_token())

    def marks(self) -> Marks:
        return self.client.get_file_marks(self._open_token())

    def summaries(self, first: int, count: int, rate: FrameRate = FrameRate.FILE) -> list[FrameSummary]:
        return self.client.get_frame_desc(self._open_token(), first, count, rate)

    def flush(self) -> None:
        self.client.flush_buffers(self._open_token())

    def erase(self, first: int, end: int) -> None:
        self.client.erase_segment(self._open_token(changing=True), first, end)

    def write(self, position: int, frame: bytes | bytearray | memoryview | FrameDescriptor,
              key_frame: bool = False) -> None:
        flags = EntryFlags.KEY_FRAME if key_frame else EntryFlags(0)
        self.client.write_frame([WriteEntry(self._open_token(changing=True), position, frame, flags)])

    def read(self, position: int) -> Frame:
        """Raises ZemRefused, with the result, if the frame cannot be had."""
        frame, = self.client.read_frame([ReadEntry(self._open_token(), position)])
        if not frame.ok:
            raise ZemRefused(f'frame {position} of {self.name!r} cannot be had', frame.status)
        return frame

    def is_written(self, position: int) -> bool:
        """Whether a frame is there and whole; none of its data is moved."""
        return self.client.read_frame([ReadEntry(self._open_token(), position, EntryFlags.STATUS_ONLY)])[0].ok

    def frames(self, first: int = 0, end: int | None = None, batch: int = 4) -> Iterator[Frame]:
        """The frames from first up to, but not including, end, or up to the end of media as it is when it is met.
        Holes, erased and damaged frames come too, with their status; other failures raise ZemRefused.

        batch: frames asked for at once, 1 to 22: so many are in memory. Other commands may be sent in between. Who
        takes longer than 50 s over a batch has to send keep_alive()."""
        if not 1 <= batch <= MAX_ENTRIES:
            raise ValueError(f'1 to {MAX_ENTRIES} frames can be asked for at once')
        end = MAX_POSITION + 1 if end is None else end
        for start in range(first, end, batch):
            entries = [ReadEntry(self._open_token(), position) for position in range(start, min(start + batch, end))]
            for frame in self.client.read_frame(entries):
                if frame.status == Result.END_OF_MEDIA:
                    return
                if frame.status not in (Result.S_OK, Result.HOLE, Result.ERASED, Result.CHECKSUM):
                    raise ZemRefused(f'frame {frame.position} of {self.name!r} cannot be had', frame.status)
                yield frame
