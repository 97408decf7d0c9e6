#!/bin/sh
# Runs the block dump of the Linux library and that of Glyptora.dll (through wine) and
# compares their files byte for byte.
#   compare_blocks.sh <Linux glyptora_block_dump> <wine> <glyptora_block_dump.exe> <work folder>
linux_dump=$1 wine=$2 windows_dump=$3 work=$4
if [ ! -x "$linux_dump" ]; then
  echo "no Linux block dump at $linux_dump (build the Linux tests first): skipped"
  exit 77
fi
"$linux_dump" "$work/blocks-linux.bin" || exit 1
$wine "$windows_dump" "$work/blocks-windows.bin" || exit 1
if cmp "$work/blocks-linux.bin" "$work/blocks-windows.bin"; then
  echo "Glyptora.dll and the Linux library wrote the same blocks"
else
  echo "Glyptora.dll and the Linux library wrote different blocks"
  exit 1
fi
