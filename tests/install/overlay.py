"""A private copy of the running system: what is changed in it, is changed for this process alone.

The copy is an overlay on the root file system in a mount namespace of its own, with its changes in
memory; the kernel drops it when the process and its children have ended. See
mount_namespaces(7) and the kernel's documentation of overlayfs. Only root can make one: dpkg changes
files that belong to root, which nobody else may do in an overlay either.
"""

import os
import pathlib
import stat

import linux

# Below these the package manager writes; a file system of its own would not be part of the overlay.
_WRITTEN = ["/etc", "/usr", "/usr/sbin", "/usr/share", "/var", "/var/lib", "/var/lib/dpkg", "/var/cache"]
_WORKBENCH = "/sys"  # any folder that is always there and that nothing in the copy needs


class Refused(Exception):
    """There can't be a copy; the text says why."""


class Overlay:
    """The copy, entered by the process that makes it: from then on / is the copy's root.

    shared: folders whose changes are real
    """

    def __init__(self, shared):
        if os.getuid() != 0:
            raise Refused("only root can install packages, even into a private copy of the system")
        for place in _WRITTEN:
            if os.path.ismount(place):
                raise Refused(f"{place} is a file system of its own, so an overlay on / leaves it out")
        self._lower = os.open("/", os.O_PATH | os.O_DIRECTORY)
        try:
            self._upper = self._enter(["/proc", "/dev", *_other_file_systems(), *shared])
        except OSError as error:
            raise Refused(f"the kernel refuses a private copy of the system ({error})") from error

    def _enter(self, visible):
        linux.unshare(linux.CLONE_NEWNS)
        linux.mount(None, "/", flags=linux.MS_PRIVATE | linux.MS_REC)
        # By descriptors, because the workbench may hide them.
        shown = {path: os.open(path, os.O_PATH) for path in visible}
        bench = pathlib.Path(_WORKBENCH)
        linux.mount("overlay", _WORKBENCH, "tmpfs", options="mode=0755")
        for name in ("upper", "work", "root"):
            (bench / name).mkdir()
        root = bench / "root"
        linux.mount("overlay", root, "overlay",
                    options=f"lowerdir=/,upperdir={bench}/upper,workdir={bench}/work")
        upper = os.open(bench / "upper", os.O_RDONLY | os.O_DIRECTORY)
        for place in ("run", "tmp"):
            linux.mount("overlay", root / place, "tmpfs", options="mode=1777")
        for path, descriptor in shown.items():
            inside = root / str(path).lstrip("/")
            inside.mkdir(parents=True, exist_ok=True)
            linux.bind(f"/proc/self/fd/{descriptor}", inside)
            os.close(descriptor)
        linux.pivot_root(root)
        return upper

    def changes(self):
        """All that differs from the system: by path what it is now, None for what is gone."""
        found = {}
        for folder, folders, files, descriptor in os.fwalk(".", dir_fd=self._upper):
            for name in folders + files:
                path = os.path.normpath(os.path.join(folder, name))
                now = os.stat(name, dir_fd=descriptor, follow_symlinks=False)
                if stat.S_ISCHR(now.st_mode) and now.st_rdev == 0:
                    found[path] = None  # overlayfs marks what is gone so
                elif not self._is_untouched_folder(path, now):
                    found[path] = (oct(now.st_mode), now.st_uid, now.st_gid, now.st_size)
        return found

    def _is_untouched_folder(self, path, now):
        """A folder is copied before anything in it changes."""
        if not stat.S_ISDIR(now.st_mode):
            return False
        try:
            before = os.stat(path, dir_fd=self._lower, follow_symlinks=False)
        except FileNotFoundError:
            return False
        return (now.st_mode, now.st_uid, now.st_gid) == (before.st_mode, before.st_uid, before.st_gid)


def _other_file_systems():
    """Folders of other file systems that programs may need, such as /home or /root."""
    lines = pathlib.Path("/proc/self/mountinfo").read_text().splitlines()
    places = [line.split()[4] for line in lines]
    own = ("/proc", "/sys", "/dev", "/run", "/tmp")
    return [place for place in places
            if place != "/" and os.path.isdir(place)
            and not any(place == folder or place.startswith(folder + "/") for folder in own)]
