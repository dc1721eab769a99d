"""refusing.py CALL[,CALL...] PROGRAM [ARGUMENT...]: becomes the program, on a kernel that refuses these system calls as a sandbox
does that does not list them."""
import ctypes
import os
import sys


class Step(ctypes.Structure):
    _fields_ = [('code', ctypes.c_uint16), ('if_true', ctypes.c_uint8), ('if_false', ctypes.c_uint8), ('k', ctypes.c_uint32)]


class Filter(ctypes.Structure):
    _fields_ = [('length', ctypes.c_uint16), ('steps', ctypes.POINTER(Step))]


NUMBERS = {'io_uring_setup': 425, 'cachestat': 451, 'mincore': {'x86_64': 27, 'aarch64': 232}.get(os.uname().machine)}
LOAD, JUMP_IF_EQUAL, RETURN = 0x20, 0x15, 0x06
REFUSE, ALLOW = 0x00050001, 0x7fff0000  # EPERM
PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS = 22, 38

steps = [Step(LOAD, 0, 0, 0)]
for name in sys.argv[1].split(','):
    steps += [Step(JUMP_IF_EQUAL, 0, 1, NUMBERS[name]), Step(RETURN, 0, 0, REFUSE)]
steps.append(Step(RETURN, 0, 0, ALLOW))
rules = Filter(len(steps), (Step * len(steps))(*steps))
libc = ctypes.CDLL(None, use_errno=True)
if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or libc.prctl(PR_SET_SECCOMP, 2, ctypes.byref(rules), 0, 0) != 0:
    sys.exit('refusing.py: ' + os.strerror(ctypes.get_errno()))
os.execv(sys.argv[2], sys.argv[2:])
