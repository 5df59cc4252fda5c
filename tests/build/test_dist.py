"""The release: what is in it, its sums, its signatures, and the same bytes every time."""

import http.server
import os
import re
import subprocess
import sys
import threading
import zipfile
from pathlib import Path
from typing import Iterator

import pytest

import dist
from installer import package, paths

SHIPPED = {
    "Halvard_CA.dll": paths.LIBRARY,
    "Halvard_CA.dll.debug": paths.LIBRARY.with_name("Halvard_CA.dll.debug"),
    "README.md": paths.ROOT / "README.md",
    "halvard_actions.wxi": paths.ROOT / "package/halvard_actions.wxi",
    "halvard_actions.v4.wxi": paths.ROOT / "package/halvard_actions.v4.wxi",
    "halvard_run.exe": paths.RUNNER,
}
SIGNED = ("Halvard_CA.dll", "halvard_run.exe")
SUMS = "SHA256SUMS.txt"
PASSWORD = "not secret"
LIMIT = 60.0


def run(*command: str | Path, **options) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=LIMIT,
        **options,
    )


def script(*arguments: str | Path, **options) -> subprocess.CompletedProcess[str]:
    return run(sys.executable, "-B", paths.ROOT / "tools/dist.py", *arguments, **options)


@pytest.fixture
def folder(monkeypatch, tmp_path) -> Path:
    """Archives of a test do not take the place of the last release."""
    monkeypatch.setattr(dist, "FOLDER", tmp_path / "dist")
    return tmp_path / "dist"


def unpacked(archive: Path, target: Path) -> Path:
    """The one folder of an archive."""
    with zipfile.ZipFile(archive) as packed:
        packed.extractall(target)
    (top,) = target.iterdir()
    return top


def names_in(top: Path) -> set[str]:
    return {str(file.relative_to(top)) for file in top.rglob("*") if file.is_file()}


def test_the_archive_holds_what_is_shipped(folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    # Those that are the project's: a draft beside them is not shipped.
    listed = run("git", "ls-files", "docs/*.md", "docs/*.png", cwd=paths.ROOT)
    documents = {name: paths.ROOT / name for name in listed.stdout.splitlines()}
    assert "docs/actions.md" in documents
    assert names_in(top) == {*SHIPPED, *documents, SUMS}
    for name, file in (SHIPPED | documents).items():
        assert (top / name).read_bytes() == file.read_bytes(), name


def test_the_archive_bears_the_version_of_the_project(folder, tmp_path):
    version = re.search(r"VERSION (\d+\.\d+\.\d+)\n", paths.CMAKE_LISTS.read_text())[1]
    archive = dist.pack()
    assert archive == folder / f"Halvard_CA-{version}.zip"
    assert unpacked(archive, tmp_path / "unpacked").name == f"Halvard_CA-{version}"
    assert list(folder.iterdir()) == [archive]


def test_the_links_of_the_readme_lead_to_files_of_the_archive(folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    links = re.findall(r"\]\(([^)#:]+)[^)]*\)", (top / "README.md").read_text())
    assert links
    assert set(links) <= names_in(top)


def test_the_sums_are_those_of_all_files(folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    checked = run("sha256sum", "--check", "--strict", SUMS, cwd=top)
    assert checked.returncode == 0, checked.stdout
    verdicts = checked.stdout.splitlines()
    assert sorted(verdicts) == sorted(f"{name}: OK" for name in names_in(top) - {SUMS})

    with open(top / "README.md", "a") as changed:
        changed.write(" ")
    assert run("sha256sum", "--check", SUMS, cwd=top).returncode == 1


def test_two_runs_give_the_same_bytes(folder):
    first = dist.pack().read_bytes()
    status = dist.README.stat()
    mask = os.umask(0o077)
    try:
        os.utime(dist.README)
        second = dist.pack().read_bytes()
    finally:
        os.umask(mask)
        os.utime(dist.README, ns=(status.st_atime_ns, status.st_mtime_ns))
    assert first == second

    here = paths.BUILD / "dist" / dist.pack().name
    former = here.read_bytes() if here.exists() else None
    try:
        done = script(env=os.environ | {"TZ": "Asia/Tokyo", "LC_ALL": "C"})
        assert done.returncode == 0, done.stdout
        told = rf"^{re.escape(paths.shown(here))}: {len(first)} bytes, not signed$"
        assert re.search(told, done.stdout, re.MULTILINE), done.stdout
        assert here.read_bytes() == first
    finally:
        if former is not None:
            here.write_bytes(former)


def test_the_entries_are_sorted_and_without_times(folder):
    with zipfile.ZipFile(dist.pack()) as packed:
        entries = packed.infolist()
    names = [entry.filename for entry in entries]
    assert names == sorted(names)
    assert {entry.date_time for entry in entries} == {(1980, 1, 1, 0, 0, 0)}
    assert {entry.external_attr >> 16 for entry in entries} == {0o100644}


def make_certificate(folder: Path, name: str, usage: str) -> None:
    made = run(
        *("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2"),
        *("-subj", f"/CN={name}", "-addext", f"extendedKeyUsage={usage}"),
        *("-keyout", "key.pem", "-out", "certificate.pem"),
        cwd=folder,
    )
    assert made.returncode == 0, made.stdout


@pytest.fixture(scope="module")
def identity(tmp_path_factory) -> Path:
    """A folder with a certificate of its own making in each form that a release is signed with."""
    folder = tmp_path_factory.mktemp("identity")
    make_certificate(folder, "Release test", "codeSigning")
    parts = [(folder / name).read_text() for name in ("certificate.pem", "key.pem")]
    (folder / "both.pem").write_text("".join(parts))
    (folder / "password.txt").write_text(PASSWORD)
    stored = run(
        *("openssl", "pkcs12", "-export", "-in", "certificate.pem", "-inkey", "key.pem"),
        *("-passout", "file:password.txt", "-out", "store.pfx"),
        cwd=folder,
    )
    assert stored.returncode == 0, stored.stdout
    return folder


def verification(
    file: Path, identity: Path, *options: str | Path
) -> subprocess.CompletedProcess[str]:
    certificate = identity / "certificate.pem"
    return run("osslsigncode", "verify", "-CAfile", certificate, *options, "-in", file)


@pytest.mark.parametrize(
    "names",
    [
        {"certificate": "certificate.pem", "key": "key.pem"},
        {"certificate": "both.pem"},
        {"certificate": "store.pfx", "password_file": "password.txt"},
    ],
    ids=lambda names: names["certificate"],
)
def test_a_signature_verifies(names, identity, folder, tmp_path):
    signer = dist.Signer(**{option: identity / name for option, name in names.items()})
    top = unpacked(dist.pack(signer), tmp_path / "unpacked")
    for name in SIGNED:
        verified = verification(top / name, identity)
        assert verified.returncode == 0, verified.stdout
        assert "Signature verification: ok" in verified.stdout
        assert f"Text description: {package.project_identity().description}" in verified.stdout
    for name in set(SHIPPED) - set(SIGNED):
        assert (top / name).read_bytes() == SHIPPED[name].read_bytes(), name
    assert run("sha256sum", "--check", "--strict", SUMS, cwd=top).returncode == 0


TIMESTAMPING = """
[server]
serial = serial.txt
crypto_device = builtin
signer_digest = sha256
default_policy = 1.2.3.4.1
digests = sha256, sha384, sha512
accuracy = secs:1
"""


@pytest.fixture
def timestamp_server(tmp_path) -> Iterator[tuple[str, Path]]:
    """The address of a timestamp server of this machine, and its certificate."""
    (tmp_path / "server.cnf").write_text(TIMESTAMPING)
    (tmp_path / "serial.txt").write_text("01")
    make_certificate(tmp_path, "Timestamp test", "critical,timeStamping")

    class Answer(http.server.BaseHTTPRequestHandler):
        def do_POST(self) -> None:
            length = int(self.headers["Content-Length"])
            (tmp_path / "query").write_bytes(self.rfile.read(length))
            answered = run(
                *("openssl", "ts", "-reply", "-config", "server.cnf", "-section", "server"),
                *("-queryfile", "query", "-signer", "certificate.pem", "-inkey", "key.pem"),
                *("-out", "reply"),
                cwd=tmp_path,
            )
            self.send_response(200 if answered.returncode == 0 else 500)
            self.send_header("Content-Type", "application/timestamp-reply")
            self.end_headers()
            self.wfile.write((tmp_path / "reply").read_bytes())

        def log_message(self, *_: object) -> None:
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Answer) as server:
        serving = threading.Thread(target=server.serve_forever)
        serving.start()
        yield f"http://127.0.0.1:{server.server_port}/", tmp_path / "certificate.pem"
        server.shutdown()
        serving.join()


def test_a_signature_bears_the_time_of_a_server(identity, timestamp_server, folder, tmp_path):
    address, authority = timestamp_server
    signer = dist.Signer(identity / "both.pem", timestamp=address)
    top = unpacked(dist.pack(signer), tmp_path / "unpacked")
    for name in SIGNED:
        verified = verification(top / name, identity, "-TSA-CAfile", authority)
        assert verified.returncode == 0, verified.stdout
        assert "Timestamp Server Signature verification: ok" in verified.stdout


def test_a_server_that_does_not_answer_is_told(identity, folder):
    signer = dist.Signer(identity / "both.pem", timestamp="http://127.0.0.1:9/")
    with pytest.raises(dist.SigningFailed, match="http://127.0.0.1:9/"):
        dist.pack(signer)
    assert list(folder.iterdir()) == []


def test_a_changed_file_does_not_verify(identity, folder, tmp_path):
    signer = dist.Signer(identity / "both.pem")
    signed = unpacked(dist.pack(signer), tmp_path / "unpacked") / "Halvard_CA.dll"
    content = bytearray(signed.read_bytes())
    content[len(content) // 2] ^= 1
    signed.write_bytes(content)
    assert verification(signed, identity).returncode != 0


def test_nothing_is_signed_without_a_certificate(identity, folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    for name in SIGNED:
        verified = verification(top / name, identity)
        assert verified.returncode != 0 and "No signature found" in verified.stdout


@pytest.mark.parametrize(
    "option, file, reason",
    [
        ("certificate", "none.pem", "none.pem"),
        ("key", "none.pem", "none.pem"),
        ("key", "certificate.pem", "is not signed"),
    ],
)
def test_what_cannot_be_signed_leaves_the_last_release(option, file, reason, identity, folder):
    archive = dist.pack()
    before = archive.read_bytes()
    names = {"certificate": "certificate.pem", "key": "key.pem"} | {option: file}
    with pytest.raises(dist.SigningFailed, match=re.escape(reason)):
        dist.pack(dist.Signer(**{name: identity / value for name, value in names.items()}))
    assert list(folder.iterdir()) == [archive]
    assert archive.read_bytes() == before


def test_a_missing_file_is_told(folder, monkeypatch, tmp_path, capsys):
    monkeypatch.setattr(dist, "README", tmp_path / "none.md")
    assert dist.main([]) == 1
    assert "none.md" in capsys.readouterr().err
    assert list(folder.iterdir()) == []


@pytest.mark.parametrize(
    "arguments, code, reason",
    [
        (["--certificate", "none.pem"], 1, "Halvard_CA.dll is not signed: "),
        (["--key", "key.pem"], 2, "need --certificate"),
        (["--nonsense"], 2, "unrecognized arguments: --nonsense"),
        (["--help"], 0, "--certificate FILE"),
    ],
)
def test_the_script_tells_by_its_exit_code(arguments, code, reason, tmp_path):
    done = script(*arguments, cwd=tmp_path)
    assert done.returncode == code
    assert reason in done.stdout
