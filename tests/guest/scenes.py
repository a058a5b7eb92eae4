"""The scenes that are played in the guest, and how they are told: GoogleTest's lines, which ./test counts.

    scenes.py [WORD]     those whose name has WORD; without it all

A scene is a function of one of the files below; its name is the sentence that it shows. All are played in one guest, each
leaves the keyboard with the kernel's own driver; after a failed one the next has a guest of its own.
"""
import importlib
import sys
import time
import traceback

from guest import Failed, Guest

FILES = ("raw", "live", "network", "real", "interfaces", "unruly", "machine")


def all_scenes():
    for name in FILES:
        module = importlib.import_module(name)
        for scene in vars(module).values():
            if callable(scene) and getattr(scene, "__module__", None) == name and not scene.__name__.startswith("_"):
                yield f"Guest/{name}.{scene.__name__}", scene


def play(guest, name, scene):
    """Whether the scene went as told."""
    print(f"[ RUN      ] {name}", flush=True)
    start = time.time()
    try:
        scene(guest)
        verdict = "      OK"
    except Exception as error:
        verdict = " FAILED "
        print(error if isinstance(error, Failed) else traceback.format_exc())
        print(guest.told())
    print(f"[{verdict:>9} ] {name} ({(time.time() - start) * 1000:.0f} ms)", flush=True)
    return verdict != " FAILED "


def main():
    word = sys.argv[1] if len(sys.argv) > 1 else ""
    scenes = [(name, scene) for name, scene in all_scenes() if word in name]
    guest, failed = None, 0
    start = time.time()
    for name, scene in scenes:
        if guest is None:
            guest = Guest()
        if not play(guest, name, scene):
            failed += 1
            guest.close()
            guest = None
    if guest is not None:
        guest.close()
    print(f"{len(scenes)} scenes, {failed} failed, {time.time() - start:.0f} s")
    return 1 if failed or not scenes else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failed as error:
        print(error)
        sys.exit(1)
