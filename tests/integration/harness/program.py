"""Built programs where everybody can run them: the tree may lie where only its owner can enter."""

import shutil

from .settings import BUILD_DIR

_LIBRARY = "liborvexclient-1.0.so.0"


def copy_of_orvexctl(directory):
    """Copies orvexctl below a directory, which all may enter, with the library of the build that it finds there."""
    for folder in ("bin", "lib"):
        (directory / folder).mkdir(exist_ok=True)
        (directory / folder).chmod(0o755)
    shutil.copy(BUILD_DIR / "lib" / _LIBRARY, directory / "lib")
    return shutil.copy(BUILD_DIR / "bin" / "orvexctl", directory / "bin")
