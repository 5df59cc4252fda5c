"""Builds the sample packages around the library of the last build and prints where they lie."""

from installer import package, paths


def main() -> None:
    for source in (package.COMPANION, package.SECOND_CLIENT):
        print(paths.shown(package.build(source)))


if __name__ == "__main__":
    main()
