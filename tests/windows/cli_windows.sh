#!/bin/sh
# glyptora.exe under wine: converts a small PNG to the bytes the Linux tool writes (when that
# is built), and a failed conversion leaves nothing behind.
#   cli_windows.sh <wine> <glyptora.exe> <Linux glyptora> <work folder>
wine=$1 tool=$2 linux_tool=$3 work=$4/cli_windows
rm -rf "$work" && mkdir -p "$work/folder.dds" || exit 1
# 7x5 RGBA with varying alpha.
echo "iVBORw0KGgoAAAANSUhEUgAAAAcAAAAFCAYAAACJmvbYAAAAKklEQVR42mNkYGD4r8LA8AYbZmGwYWBgYODFipEkpTAwmqQ6CsYiaQLHAGwACuu8ykUrAAAAAElFTkSuQmCC" |
  base64 -d > "$work/in.png" || exit 1
$wine "$tool" convert "$work/in.png" -o "$work/windows.dds" -f bc3 -q production || { echo "convert failed"; exit 1; }
if $wine "$tool" convert "$work/in.png" -o "$work/folder.dds" -f bc1 2>/dev/null; then
  echo "converting onto a folder succeeded"
  exit 1
fi
leftovers=$(ls -A "$work/folder.dds"; ls -A "$work" | grep glyptora-)
[ -z "$leftovers" ] || { echo "left behind: $leftovers"; exit 1; }
if [ -x "$linux_tool" ]; then
  "$linux_tool" convert "$work/in.png" -o "$work/linux.dds" -f bc3 -q production >/dev/null || exit 1
  cmp "$work/linux.dds" "$work/windows.dds" || { echo "glyptora.exe and the Linux tool differ"; exit 1; }
  echo "glyptora.exe wrote the Linux tool's file"
fi
echo ok
