#!/bin/sh
# make_prefix.sh PREFIX: a Wine prefix in which code that deletes folders may run as root.
#
# A fresh prefix of Wine maps z: to the root of the file system and the user's folders to the real
# home, and a deletion follows such links. Here no drive leads out of the build folder:
#   c:  the prefix itself
#   b:  the build folder
#   t:  a throw-away folder of this prefix, PREFIX.throwaway
# prefix_guard.cpp checks the same from inside before any test runs.
set -eu

prefix=$(realpath -m "$1")
build=$(realpath "$(dirname "$0")/../../build")
wine=/usr/lib/wine/wine64
# A template for each Wine: one that was made by another version would want an update.
template=$build/prefix-template-slim-$("$wine" --version | tr -c 'A-Za-z0-9.\n' -)
case $prefix in
    "$build"/*/* | "$build"/prefix-template* | *.throwaway) name=wrong ;;
    "$build"/prefix-*) name=right ;;
    *) name=wrong ;;
esac
if [ "$name" = wrong ]; then
    echo "make_prefix.sh: $prefix is not below $build with a name like prefix-something" >&2
    exit 1
fi

make_template() {
    rm -rf "$template" "$template.new"
    # Windows 10, as everything of this decade expects; a fresh prefix says 6.1.
    if ! (
        export WINEPREFIX="$template.new" WINEDEBUG=-all
        export WINEDLLOVERRIDES='mscoree,mshtml,winemenubuilder.exe='
        unset DISPLAY
        "$wine" wineboot -i && "$wine" winecfg -v win10
    ) >"$template.log" 2>&1; then
        tail -n 20 "$template.log" >&2
        exit 1
    fi
    WINEPREFIX=$template.new wineserver -k -w || true
    rm -f "$template.new/dosdevices/z:"
    find "$template.new/drive_c" -type l | while IFS= read -r link; do
        rm "$link"
        mkdir "$link"
    done
    # Two thirds of a prefix are debug information, which would be copied with each one. The engine
    # loads the files that it was installed with; these only stand for them.
    find "$template.new/drive_c/windows" -type f \( -name '*.dll' -o -name '*.exe' \) \
        -exec x86_64-w64-mingw32-strip --strip-debug {} + || true
    # Wine must not put z: and the links back when it thinks that the prefix wants an update.
    echo disable >"$template.new/.update-timestamp"
    mv "$template.new" "$template"
}

# One template at a time, also when two runs begin together.
exec 9>"$build/prefix-template.lock"
flock 9
[ -d "$template" ] || make_template
flock -u 9
exec 9>&-
if [ -d "$prefix" ]; then
    WINEPREFIX=$prefix wineserver -k -w 2>/dev/null || true
fi
rm -rf "$prefix" "$prefix.throwaway"
mkdir "$prefix.throwaway"
cp -a "$template" "$prefix"
ln -s "$build" "$prefix/dosdevices/b:"
ln -s "$prefix.throwaway" "$prefix/dosdevices/t:"
