"""noring.py PROGRAM [ARGUMENT...]: becomes the program, on a kernel that refuses io_uring."""
import ctypes
import os
import sys


class Step(ctypes.Structure):
    _fields_ = [('code', ctypes.c_uint16), ('if_true', ctypes.c_uint8), ('if_false', ctypes.c_uint8), ('k', ctypes.c_uint32)]


class Filter(ctypes.Structure):
    _fields_ = [('length', ctypes.c_uint16), ('steps', ctypes.POINTER(Step))]


IO_URING_SETUP = 425  # on every architecture
LOAD, JUMP_IF_EQUAL, RETURN = 0x20, 0x15, 0x06
REFUSE, ALLOW = 0x00050001, 0x7fff0000  # EPERM
PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS = 22, 38

steps = (Step * 4)(Step(LOAD, 0, 0, 0), Step(JUMP_IF_EQUAL, 0, 1, IO_URING_SETUP), Step(RETURN, 0, 0, REFUSE),
                   Step(RETURN, 0, 0, ALLOW))
libc = ctypes.CDLL(None, use_errno=True)
if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or libc.prctl(PR_SET_SECCOMP, 2, ctypes.byref(Filter(4, steps)), 0, 0) != 0:
    sys.exit('noring.py: ' + os.strerror(ctypes.get_errno()))
os.execv(sys.argv[1], sys.argv[1:])
