"""Builds the sample package around the library of the last build and prints where it lies."""

from installer import package, paths


def main() -> None:
    print(paths.shown(package.build()))


if __name__ == "__main__":
    main()
