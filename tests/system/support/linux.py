"""The few Linux system calls that the sandbox needs and Python 3.11 doesn't offer.

Each raises OSError with the errno and what was asked for. See unshare(2), mount(2), pivot_root(2),
mount_setattr(2) and prctl(2).
"""

import ctypes
import os
import platform

CLONE_NEWNS = 0x00020000
CLONE_NEWIPC = 0x08000000
CLONE_NEWUSER = 0x10000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000

MS_RDONLY = 1
MS_REMOUNT = 32
MS_BIND = 4096
MS_REC = 16384
MS_PRIVATE = 1 << 18

_MNT_DETACH = 2
_PR_SET_PDEATHSIG = 1
_AT_FDCWD = -100
_AT_RECURSIVE = 0x8000
_MOUNT_ATTR_RDONLY = 1
_SYS_MOUNT_SETATTR = 442  # the same number on every architecture
_SYS_PIVOT_ROOT = {"x86_64": 155, "aarch64": 41}.get(platform.machine())

_libc = ctypes.CDLL(None, use_errno=True)


def _checked(result, what):
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), what)


def _bytes(text):
    return None if text is None else os.fsencode(text)


def unshare(flags):
    _checked(_libc.unshare(ctypes.c_int(flags)), "unshare")


def mount(source, target, kind=None, flags=0, options=None):
    _checked(
        _libc.mount(_bytes(source), _bytes(target), _bytes(kind), ctypes.c_ulong(flags),
                    _bytes(options)),
        f"mount {target}")


def bind(source, target):
    """Shows source, with all that is mounted below it, at target."""
    mount(source, target, flags=MS_BIND | MS_REC)


def make_read_only(target):
    """Makes the mount at target and all mounts below it read-only."""
    attributes = (ctypes.c_uint64 * 4)(_MOUNT_ATTR_RDONLY, 0, 0, 0)
    _checked(
        _libc.syscall(_SYS_MOUNT_SETATTR, _AT_FDCWD, _bytes(target), _AT_RECURSIVE,
                      ctypes.byref(attributes), ctypes.sizeof(attributes)),
        f"mount_setattr {target}")


def unmount(target):
    """Takes the mount at target out of sight at once, whoever still uses it."""
    _checked(_libc.umount2(_bytes(target), _MNT_DETACH), f"umount {target}")


def pivot_root(new_root):
    """Makes new_root the root folder and lets go of the old one."""
    os.chdir(new_root)
    _checked(_libc.syscall(_SYS_PIVOT_ROOT, b".", b"."), "pivot_root")
    unmount(".")
    os.chdir("/")


def die_with_parent(signal_number):
    """Has the kernel send this process the signal when its parent ends."""
    _checked(_libc.prctl(_PR_SET_PDEATHSIG, signal_number, 0, 0, 0), "prctl")
