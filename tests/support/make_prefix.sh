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
template=$build/prefix-template
case $prefix in
    "$build"/*) ;;
    *) echo "make_prefix.sh: $prefix is not below $build" >&2; exit 1 ;;
esac

make_template() {
    rm -rf "$template" "$template.new"
    (
        export WINEPREFIX="$template.new" WINEDEBUG=-all WINEDLLOVERRIDES='mscoree,mshtml,winemenubuilder.exe='
        unset DISPLAY
        wine=/usr/lib/wine/wine64
        "$wine" wineboot -i
        # Windows 10, as everything of this decade expects; a fresh prefix says 6.1.
        "$wine" winecfg -v win10
        wineserver -k -w || true
    ) >"$build/prefix-template.log" 2>&1
    rm -f "$template.new/dosdevices/z:"
    find "$template.new/drive_c" -type l | while IFS= read -r link; do
        rm "$link"
        mkdir "$link"
    done
    # Wine must not put z: and the links back when it thinks that the prefix wants an update.
    echo disable >"$template.new/.update-timestamp"
    mv "$template.new" "$template"
}

[ -d "$template" ] || make_template
if [ -d "$prefix" ]; then
    WINEPREFIX=$prefix wineserver -k -w 2>/dev/null || true
fi
rm -rf "$prefix" "$prefix.throwaway"
mkdir "$prefix.throwaway"
cp -a "$template" "$prefix"
ln -s "$build" "$prefix/dosdevices/b:"
ln -s "$prefix.throwaway" "$prefix/dosdevices/t:"
