"""What the sample package says and leaves on a machine, for the demo and the tests."""

from installer import package

_IDENTITY = package.project_identity()

NAME = f"{_IDENTITY.company} Companion"
FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Companion"
KEY = f"HKLM\\Software\\{_IDENTITY.company}\\Companion"

FILES = [
    f"{FOLDER}\\Pivot\\Pivot.ini",
    f"{FOLDER}\\Pivot\\Profiles.ini",
    f"{FOLDER}\\readme.txt",
]
VALUES = {
    f"{KEY} : InstallDir": f'"{FOLDER}\\"',
    f"{KEY} : Version": f'"{_IDENTITY.version}"',
}

REFUSAL_LINE = "QUENBY_CA Not Launched from MIM and unable to get property"
REFUSAL_MESSAGE = [
    "This package requires Zenvo Installer Setup.",
    "Please obtain and install Zenvo Installer from www.zenvo.example to continue installing this "
    "package.",
    "This application will now abort.",
]


def acceptance_line(value: str) -> str:
    """What the actions log when LAUNCHED_FROM_MIM has this value and it lets the package in."""
    return f"QUENBY_CA Launched from MIM: {value} "
