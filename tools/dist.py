"""Packs what a release is made of into build/dist/Halvard_CA-VERSION.zip.

    dist.py [--certificate FILE [--key FILE] [--password-file FILE] [--timestamp URL]]

The files of the last build go in: two runs over the same files give the same bytes. With a
certificate the library and the runner are signed, and only then: a signature holds its time.
FILE is a certificate in PEM form with its key in another file or the same one, or a PKCS #12 store
(.pfx, .p12). Exit code 0, 1 when a file is missing or cannot be signed, 2 for wrong arguments.
"""

import argparse
import hashlib
import os
import subprocess
import sys
import tempfile
import zipfile
from dataclasses import dataclass
from pathlib import Path

from installer import package, paths
from installer.package import Identity

FOLDER = paths.BUILD / "dist"
SUMS = "SHA256SUMS.txt"
SIGNED = (paths.LIBRARY, paths.RUNNER)
DEBUG_FILE = paths.LIBRARY.with_name("Halvard_CA.dll.debug")
INCLUDE_FILES = sorted(paths.PACKAGE_SOURCES.glob("halvard_actions*.wxi"))
README = paths.ROOT / "README.md"
REFERENCE = paths.ROOT / "docs"

# The first time that the format knows.
TIME = (1980, 1, 1, 0, 0, 0)
UNIX = 3
MODE = 0o100644
PKCS12 = (".pfx", ".p12")


class SigningFailed(RuntimeError):
    """A file could not be signed; the text is what the tool printed."""


@dataclass(frozen=True)
class Signer:
    """With what files are signed; `key` is None when the certificate's file holds it too."""

    certificate: Path
    key: Path | None = None
    password_file: Path | None = None
    timestamp: str | None = None

    def sign(self, file: Path, signed: Path, identity: Identity) -> None:
        """Writes a copy of the file with a signature, in which the project's description stands."""
        command = ["osslsigncode", "sign", *self._identity(), "-h", "sha256"]
        command += ["-n", identity.description]
        if self.password_file is not None:
            command += ["-readpass", str(self.password_file)]
        if self.timestamp is not None:
            command += ["-ts", self.timestamp]
        command += ["-in", str(file), "-out", str(signed)]
        done = subprocess.run(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        if done.returncode != 0:
            raise SigningFailed(f"{paths.shown(file)} is not signed: {done.stdout.strip()}")

    def _identity(self) -> list[str]:
        if self.certificate.suffix.lower() in PKCS12:
            return ["-pkcs12", str(self.certificate)]
        return ["-certs", str(self.certificate), "-key", str(self.key or self.certificate)]


def main(arguments: list[str]) -> int:
    try:
        _pack_and_tell(_signer(arguments))
    except (OSError, RuntimeError) as failure:
        print(f"dist: {failure}", file=sys.stderr)
        return 1
    return 0


def pack(signer: Signer | None = None) -> Path:
    """Writes the archive, in whose place a failure leaves what was there before."""
    identity = package.project_identity()
    archive = FOLDER / f"Halvard_CA-{identity.version}.zip"
    FOLDER.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=FOLDER) as folder:
        contents = _contents(signer, Path(folder), identity)
        contents[SUMS] = _sums(contents)
        unfinished = Path(folder) / archive.name
        _write(unfinished, archive.stem, contents)
        os.replace(unfinished, archive)
    return archive


def files() -> dict[str, Path]:
    """What goes into the archive but for the sums: the names there, and the files."""
    beside = [*SIGNED, DEBUG_FILE, *INCLUDE_FILES, README]
    documents = [file for file in REFERENCE.iterdir() if file.suffix in (".md", ".png")]
    return {file.name: file for file in beside} | {
        f"{REFERENCE.name}/{file.name}": file for file in documents
    }


def _contents(signer: Signer | None, folder: Path, identity: Identity) -> dict[str, bytes]:
    contents = {}
    for name, file in files().items():
        if signer is not None and file in SIGNED:
            signer.sign(file, folder / name, identity)
            file = folder / name
        contents[name] = file.read_bytes()
    return contents


def _sums(contents: dict[str, bytes]) -> bytes:
    """As sha256sum prints them."""
    return "".join(
        f"{hashlib.sha256(data).hexdigest()}  {name}\n" for name, data in sorted(contents.items())
    ).encode()


def _write(archive: Path, folder: str, contents: dict[str, bytes]) -> None:
    with zipfile.ZipFile(archive, "w") as packed:
        for name in sorted(contents):
            entry = zipfile.ZipInfo(f"{folder}/{name}", TIME)
            entry.create_system = UNIX
            entry.external_attr = MODE << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            packed.writestr(entry, contents[name], compresslevel=9)


def _signer(arguments: list[str]) -> Signer | None:
    parser = argparse.ArgumentParser(prog="./run dist", description="Packs a release.")
    parser.add_argument("--certificate", type=paths.of_caller, metavar="FILE", help="sign with this one")
    parser.add_argument("--key", type=paths.of_caller, metavar="FILE", help="where its key is not with it")
    parser.add_argument(
        "--password-file", type=paths.of_caller, metavar="FILE", help="holds the password of the key"
    )
    parser.add_argument("--timestamp", metavar="URL", help="of a timestamp server (RFC 3161)")
    given = parser.parse_args(arguments)
    if given.key and given.certificate and given.certificate.suffix.lower() in PKCS12:
        parser.error("--key belongs to a certificate in PEM form")
    if given.certificate is not None:
        return Signer(given.certificate, given.key, given.password_file, given.timestamp)
    if any((given.key, given.password_file, given.timestamp)):
        parser.error("--key, --password-file and --timestamp need --certificate")
    return None


def _pack_and_tell(signer: Signer | None) -> None:
    archive = pack(signer)
    data = archive.read_bytes()
    with zipfile.ZipFile(archive) as packed:
        for name in packed.namelist():
            print(f"    {name}")
    print(f"{paths.shown(archive)}: {len(data)} bytes, {'' if signer else 'not '}signed")
    print(f"SHA-256 {hashlib.sha256(data).hexdigest()}")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
