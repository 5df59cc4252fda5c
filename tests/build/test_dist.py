"""The release: what is in it, its sums, its signatures, and the same bytes every time."""

import http.server
import os
import re
import subprocess
import sys
import threading
import zipfile
from dataclasses import replace
from pathlib import Path
from typing import Iterator

import pytest

import dist
from installer import package, paths

SHIPPED = {
    "CHANGELOG.md": paths.ROOT / "CHANGELOG.md",
    "Halvard_CA.dll": paths.LIBRARY,
    "Halvard_CA.dll.debug": paths.LIBRARY.with_name("Halvard_CA.dll.debug"),
    "THIRD-PARTY-NOTICES.txt": paths.ROOT / "docs/third-party-notices.txt",
    "halvard_run.exe": paths.RUNNER,
} | {
    name: paths.ROOT / name
    for name in (
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
}
README = "README.md"
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
    assert names_in(top) == {*SHIPPED, README, SUMS}
    for name, file in SHIPPED.items():
        assert (top / name).read_bytes() == file.read_bytes(), name


def test_the_readme_of_the_archive_is_filled_in(folder, tmp_path):
    text = (unpacked(dist.pack(), tmp_path / "unpacked") / README).read_text()
    identity = package.project_identity()
    assert re.findall(r"@[A-Z]+@", text) == []
    assert text.startswith(f"# Halvard_CA {identity.version}\n")
    assert "> **Nobody has run this on Windows yet.**" in text
    assert f"This is build {dist.product_version(paths.LIBRARY)}:" in text
    assert f"<{identity.faults}>" in text
    assert "No licence has been chosen yet" in text
    assert "\nThe programs of this archive are not signed.\n" in text
    asked = run("x86_64-w64-mingw32-g++-posix", "-dumpversion").stdout
    assert f"mingw-w64,\nGCC {asked.partition('-')[0].strip()};" in text


@pytest.mark.parametrize(
    "address, placeholder",
    [
        ("https://support.maker.example/faults", True),
        ("https://example/", True),
        ("https://www.zenvo.com/support.example", False),
        ("https://www.myexample/", False),
    ],
)
def test_the_readme_says_when_its_address_is_a_placeholder(address, placeholder):
    identity = replace(package.project_identity(), faults=address)
    text = dist.readme(identity, signed=True)
    assert (f"<{address}>. That is a placeholder of a reserved domain" in text) == placeholder
    assert (f"<{address}>.\n[What to send]" in text) != placeholder
    assert "Both programs of this archive are signed" in text


def test_both_programs_tell_the_commit_with_their_version():
    asked = run(
        *("git", "describe", "--always", "--abbrev=12", "--exclude=*", "--dirty=-changed"),
        cwd=paths.ROOT,
    )
    assert asked.returncode == 0, asked.stdout
    told = f"{package.project_identity().version} ({asked.stdout.strip()})"
    assert [dist.product_version(file) for file in (paths.LIBRARY, paths.RUNNER)] == [told] * 2
    assert len(asked.stdout.strip().removesuffix("-changed")) == 12


def test_the_sum_of_the_archive_lies_beside_it(folder):
    archive = dist.pack()
    beside = archive.with_name(f"{archive.name}.sha256")
    assert set(folder.iterdir()) == {archive, beside}
    checked = run("sha256sum", "--check", "--strict", beside.name, cwd=folder)
    assert (checked.returncode, checked.stdout) == (0, f"{archive.name}: OK\n")
    archive.write_bytes(archive.read_bytes() + b"!")
    assert run("sha256sum", "--check", beside.name, cwd=folder).returncode == 1


def anchors(text: str) -> set[str]:
    """The headings of a document, as links name them."""
    headings = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", each).strip().lower().replace(" ", "-") for each in headings}


def test_every_link_of_the_archive_leads_somewhere_in_it(folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    followed = 0
    for document in top.rglob("*.md"):
        prose = re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.MULTILINE | re.DOTALL)
        for target in re.findall(r"\]\(([^)]+)\)", prose):
            name, _, anchor = target.partition("#")
            file = document.parent / name if name else document
            assert file.is_file(), f"{document.name}: {target}"
            assert not anchor or anchor in anchors(file.read_text()), f"{document.name}: {target}"
            followed += 1
    assert followed > 50


def test_the_archive_leaves_out_what_is_for_those_who_have_the_sources(folder, tmp_path):
    top = unpacked(dist.pack(), tmp_path / "unpacked")
    for document in [*top.rglob("*.md"), *top.rglob("*.wx?"), *top.rglob("*.txt")]:
        # What is written from a table says so in its head.
        text = re.sub(r"Written by `?\./run generate", "", document.read_text(), count=1)
        if document.name != "CHANGELOG.md":
            assert "./run" not in text, document.name
        assert "tests/" not in text.replace("`tests/engines.toml`", ""), document.name


def test_every_licence_of_what_is_linked_in_is_told():
    notices = SHIPPED["THIRD-PARTY-NOTICES.txt"].read_text()
    for wanted in (
        "GCC RUNTIME LIBRARY EXCEPTION",
        "You have permission to propagate a work of Target Code",
        "by the mingw-w64 project",
        "1997-2001 Lucent Technologies",
        "Copyright (c) 2011-2016 mingw-w64 project",
        "(C) 2010 Lockless Inc.",
    ):
        assert wanted in notices, wanted


def test_the_list_of_changes_begins_with_the_version_and_tells_the_rule():
    text = SHIPPED["CHANGELOG.md"].read_text()
    versions = re.findall(r"^## (\d+\.\d+\.\d+)$", text, re.MULTILINE)
    assert versions[0] == package.project_identity().version
    numbers = [tuple(map(int, each.split("."))) for each in versions]
    assert numbers == sorted(set(numbers), reverse=True)
    for newer, older in zip(numbers, numbers[1:]):
        # One number is raised, and those behind it begin anew.
        (place,) = [n for n in range(3) if newer[: n + 1] == (*older[:n], older[n] + 1)]
        assert newer[place + 1 :] == (0,) * (2 - place)
    for word in ("**first**", "**second**", "**third**"):
        assert word in text.partition("## ")[0]


def test_the_address_for_faults_stands_in_one_place():
    faults = package.project_identity().faults
    listed = run("git", "ls-files", "-z", "-co", "--exclude-standard", cwd=paths.ROOT).stdout.split("\0")
    files = [paths.ROOT / name for name in listed if name and (paths.ROOT / name).is_file()]
    holding = [file for file in files if faults.encode() in file.read_bytes()]
    assert holding == [paths.CMAKE_LISTS]


def test_the_archive_bears_the_version_of_the_project(folder, tmp_path):
    version = re.search(r"VERSION (\d+\.\d+\.\d+)\n", paths.CMAKE_LISTS.read_text())[1]
    archive = dist.pack()
    assert archive == folder / f"Halvard_CA-{version}.zip"
    assert unpacked(archive, tmp_path / "unpacked").name == f"Halvard_CA-{version}"
    assert set(folder.iterdir()) == {archive, dist.sum_file(archive)}
    for name in ("halvard_actions.wxi", "halvard_actions.v4.wxi"):
        text = (paths.PACKAGE_SOURCES / name).read_text()
        assert f"The custom actions of Halvard_CA {version}, " in text


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
    former = {
        file: file.read_bytes() for file in (here, dist.sum_file(here)) if file.exists()
    }
    try:
        done = script(env=os.environ | {"TZ": "Asia/Tokyo", "LC_ALL": "C"})
        assert done.returncode == 0, done.stdout
        told = rf"^{re.escape(paths.shown(here))}: {len(first)} bytes, not signed$"
        assert re.search(told, done.stdout, re.MULTILINE), done.stdout
        assert here.read_bytes() == first
    finally:
        for file, content in former.items():
            file.write_bytes(content)


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


TOKEN, PIN = "release", "1234"
TOKEN_MODULE = Path("/usr/lib/softhsm/libsofthsm2.so")


@pytest.fixture
def key_in_token(identity, tmp_path, monkeypatch) -> str:
    """The URI of the key of the certificate, which a token holds."""
    tokens = tmp_path / "tokens"
    tokens.mkdir()
    (tmp_path / "softhsm2.conf").write_text(f"directories.tokendir = {tokens}\n")
    monkeypatch.setenv("SOFTHSM2_CONF", str(tmp_path / "softhsm2.conf"))
    converted = run(
        *("openssl", "pkcs8", "-topk8", "-nocrypt", "-in", identity / "key.pem"),
        *("-out", tmp_path / "key.p8"),
    )
    assert converted.returncode == 0, converted.stdout
    for arguments in (
        ("--init-token", "--free", "--label", TOKEN, "--so-pin", PIN, "--pin", PIN),
        ("--import", tmp_path / "key.p8", "--token", TOKEN, "--label", "key", "--id", "01", "--pin", PIN),
    ):
        made = run("softhsm2-util", *arguments)
        assert made.returncode == 0, made.stdout
    return f"pkcs11:token={TOKEN};object=key;type=private;pin-value={PIN}"


def test_a_key_in_a_token_signs(identity, key_in_token, folder, tmp_path):
    signer = dist.Signer(identity / "certificate.pem", key_in_token, TOKEN_MODULE)
    top = unpacked(dist.pack(signer), tmp_path / "unpacked")
    for name in SIGNED:
        verified = verification(top / name, identity)
        assert verified.returncode == 0, verified.stdout
    other = key_in_token.replace("object=key", "object=other")
    with pytest.raises(dist.SigningFailed):
        dist.pack(dist.Signer(identity / "certificate.pem", other, TOKEN_MODULE))


def test_signatures_that_end_with_the_certificate_are_warned_of(
    identity, folder, monkeypatch, capsys, timestamp_server
):
    monkeypatch.setattr(dist.paths, "shown", str)
    warning = "dist: without --timestamp the signatures end when the certificate does\n"
    assert dist.main(["--certificate", str(identity / "both.pem")]) == 0
    assert warning in capsys.readouterr().err
    address, _ = timestamp_server
    assert dist.main(["--certificate", str(identity / "both.pem"), "--timestamp", address]) == 0
    assert warning not in capsys.readouterr().err
    assert dist.main([]) == 0
    assert warning not in capsys.readouterr().err


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
    assert set(folder.iterdir()) == {archive, dist.sum_file(archive)}
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
        (["--certificate", "a.pem", "--key", "pkcs11:object=a"], 2, "go together"),
        (["--certificate", "a.pem", "--pkcs11-module", "a.so"], 2, "go together"),
        (["--nonsense"], 2, "unrecognized arguments: --nonsense"),
        (["--help"], 0, "--certificate FILE"),
    ],
)
def test_the_script_tells_by_its_exit_code(arguments, code, reason, tmp_path):
    done = script(*arguments, cwd=tmp_path)
    assert done.returncode == code
    assert reason in done.stdout
