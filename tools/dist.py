"""Packs what a release is made of into build/dist/Halvard_CA-VERSION.zip, its sum beside it.

    dist.py [--certificate FILE [--key FILE] [--pkcs11-module FILE] [--password-file FILE]
             [--timestamp URL]]

The files of the last build go in: two runs over the same files give the same bytes. With a
certificate the library and the runner are signed, and only then: a signature holds its time.
FILE is a certificate in PEM form with its key in another file or the same one, or a PKCS #12 store
(.pfx, .p12). With a PKCS #11 module the key stays in its token, and --key is its URI (pkcs11:...).
Exit code 0, 1 when a file is missing or cannot be signed, 2 for wrong arguments.
"""

import argparse
import hashlib
import os
import re
import subprocess
import sys
import tempfile
import zipfile
from dataclasses import dataclass
from pathlib import Path
from urllib.parse import urlsplit

from installer import package, paths
from installer.package import Identity

FOLDER = paths.BUILD / "dist"
SUMS = "SHA256SUMS.txt"
SIGNED = (paths.LIBRARY, paths.RUNNER)
# Each with its name in the archive, where it lies as the texts name it; nothing else goes in.
README = paths.ROOT / "docs/release/README.md"
BESIDE = {
    "Halvard_CA.dll": paths.LIBRARY,
    "Halvard_CA.dll.debug": paths.LIBRARY.with_name("Halvard_CA.dll.debug"),
    "halvard_run.exe": paths.RUNNER,
    "CHANGELOG.md": paths.ROOT / "CHANGELOG.md",
    "THIRD-PARTY-NOTICES.txt": paths.ROOT / "docs/third-party-notices.txt",
}
IN_PLACE = (
    "docs/actions.md",
    "docs/check.md",
    "docs/engines.md",
    "docs/packaging.md",
    "docs/recipes.md",
    "docs/security.md",
    "docs/verify.md",
    "docs/when-it-fails.md",
    "docs/worked-example.md",
    "package/Agent.wxi",
    "package/Companion.wxs",
    "package/Pivot/StartDVR.xml",
    "package/Pivot/StartPV.xml",
    "package/Pivot/StartPVBM.xml",
    "package/halvard_actions.v4.wxi",
    "package/halvard_actions.wxi",
)

# The first time that the format knows.
TIME = (1980, 1, 1, 0, 0, 0)
UNIX = 3
MODE = 0o100644
PKCS12 = (".pfx", ".p12")
# How the version resource names the version, with the commit behind it.
PRODUCT_VERSION = "ProductVersion"
# What the README says of this archive alone.
IS_SIGNED = (
    "Both programs of this archive are signed: the tab Digital Signatures of their Properties\n"
    "tells by whom."
)
IS_NOT_SIGNED = "The programs of this archive are not signed."
IS_PLACEHOLDER = (
    " That is a placeholder of a reserved domain and leads nowhere,\n"
    "until the maker puts the own address into `CMakeLists.txt` (`HALVARD_FAULTS`). Tell whoever gave\n"
    "you this archive till then."
)
TOKEN = "pkcs11:"


class SigningFailed(RuntimeError):
    """A file could not be signed; the text is what the tool printed."""


@dataclass(frozen=True)
class Signer:
    """With what files are signed; `key` is None when the certificate's file holds it too, and a URI
    where `module` reaches the token that keeps it."""

    certificate: Path
    key: Path | str | None = None
    module: Path | None = None
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
        if self.module is not None:
            # OpenSSL finds its engine by itself; the tool's options for it differ by release.
            token = ["-pkcs11module", str(self.module)]
            return [*token, "-certs", str(self.certificate), "-key", str(self.key)]
        return ["-certs", str(self.certificate), "-key", str(self.key or self.certificate)]


def main(arguments: list[str]) -> int:
    try:
        _pack_and_tell(_signer(arguments))
    except (OSError, RuntimeError) as failure:
        print(f"dist: {failure}", file=sys.stderr)
        return 1
    return 0


def pack(signer: Signer | None = None) -> Path:
    """Writes the archive and its sum beside it; a failure leaves what was there before."""
    identity = package.project_identity()
    archive = FOLDER / f"Halvard_CA-{identity.version}.zip"
    FOLDER.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=FOLDER) as folder:
        contents = _contents(signer, Path(folder), identity)
        contents[SUMS] = _sums(contents)
        unfinished = Path(folder) / archive.name
        _write(unfinished, archive.stem, contents)
        told = Path(folder) / sum_file(archive).name
        told.write_bytes(_sums({archive.name: unfinished.read_bytes()}))
        os.replace(unfinished, archive)
        os.replace(told, sum_file(archive))
    return archive


def sum_file(archive: Path) -> Path:
    """Where the sum of an archive stands, for `sha256sum -c` beside it."""
    return archive.with_name(f"{archive.name}.sha256")


def files() -> dict[str, Path]:
    """The files that go into the archive as they are, or signed, by their names there."""
    return BESIDE | {name: paths.ROOT / name for name in IN_PLACE}


def readme(identity: Identity, signed: bool) -> str:
    """The README of the archive."""
    text = README.read_text(encoding="utf-8")
    told = {
        "@SIGNED@": IS_SIGNED if signed else IS_NOT_SIGNED,
        "@COMPILER@": compiler(files()["Halvard_CA.dll.debug"]),
        "@PLACEHOLDER@": IS_PLACEHOLDER if is_reserved(identity.faults) else "",
        "@VERSION@": identity.version,
        "@BUILD@": product_version(paths.LIBRARY),
        "@COMPANY@": identity.company,
        "@FAULTS@": identity.faults,
    }
    for mark, value in told.items():
        text = text.replace(mark, value)
    return text


def is_reserved(address: str) -> bool:
    """Whether an address lies in the domain that is kept for examples, and leads nowhere."""
    return f".{urlsplit(address).hostname}".endswith(".example")


def compiler(debug: Path) -> str:
    """The compiler that its debug information names."""
    return f"GCC {re.search(rb'GNU C[+][+]17 ([0-9]+(?:[.][0-9]+)*)', debug.read_bytes())[1].decode()}"


def product_version(file: Path) -> str:
    """The version in a file's resource, the commit with it."""
    # The resources lie behind the code's own texts, of which one is the same.
    text = file.read_bytes().rpartition(f"{PRODUCT_VERSION}\0".encode("utf-16-le"))[2]
    # Filled up with null characters behind the key, and ended by one.
    return text[:256].decode("utf-16-le", errors="replace").lstrip("\0").partition("\0")[0]


def _contents(signer: Signer | None, folder: Path, identity: Identity) -> dict[str, bytes]:
    contents = {README.name: readme(identity, signer is not None).encode()}
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
    parser.add_argument("--key", metavar="FILE", help="where its key is not with it; a URI in a token")
    parser.add_argument(
        "--pkcs11-module", type=paths.of_caller, metavar="FILE", help="that reaches the token of the key"
    )
    parser.add_argument(
        "--password-file", type=paths.of_caller, metavar="FILE", help="holds the password of the key"
    )
    parser.add_argument("--timestamp", metavar="URL", help="of a timestamp server (RFC 3161)")
    given = parser.parse_args(arguments)
    in_token = bool(given.key) and given.key.startswith(TOKEN)
    if given.key and given.certificate and given.certificate.suffix.lower() in PKCS12:
        parser.error("--key belongs to a certificate in PEM form")
    if in_token != bool(given.pkcs11_module):
        parser.error(f"--pkcs11-module and a --key that begins with {TOKEN} go together")
    key = given.key if in_token or not given.key else paths.of_caller(given.key)
    if given.certificate is not None:
        return Signer(
            given.certificate, key, given.pkcs11_module, given.password_file, given.timestamp
        )
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
    print(f"SHA-256 {hashlib.sha256(data).hexdigest()}, in {paths.shown(sum_file(archive))} too")
    if signer is not None and signer.timestamp is None:
        print(
            "dist: without --timestamp the signatures end when the certificate does", file=sys.stderr
        )
    if product_version(paths.LIBRARY).endswith("-changed)"):
        print("dist: the sources differ from their commit", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
