"""Exit status 0 when the fat binary (argument 2) lies whole inside the library (argument 1)."""
import sys

library = open(sys.argv[1], "rb").read()
kernels = open(sys.argv[2], "rb").read()
print(f"{len(kernels)} bytes of GPU kernels, {'found' if kernels in library else 'missing'} in {sys.argv[1]}")
sys.exit(0 if kernels and kernels in library else 1)
