"""Batch conversion of image folders on Dask distributed.

usage: python -m glyptora.batch SRC DST -f FORMAT [-q QUALITY] [--scheduler tcp://host:8786] ...

Every image under SRC becomes one texture under DST (same relative folder, the container's
extension), one Dask task per file. Without --scheduler a local cluster is started. Each task
runs `glyptora convert` in a process of its own: its output is then byte for byte the command's,
it reads every image kind the command reads, and a crash in a conversion ends that process
only, not the worker and the other files it holds. Outputs are written all-or-nothing (the
command writes a temporary file and renames it), and an output newer than its source is
skipped, so a failed or interrupted run is resumed by running it again. A worker that dies has
its files converted again elsewhere by the scheduler; its conversion in progress is ended with
it and leaves nothing behind.
"""
import argparse
import contextlib
import logging
import os
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import uuid
from dataclasses import dataclass, field

from ._native import command_path

IMAGE_EXTENSIONS = {".png", ".jpg", ".jpeg", ".tga", ".bmp", ".psd", ".hdr", ".exr"}
QUALITIES = ("fastest", "normal", "production", "highest", "0", "1", "2", "3")
_CONVERTED_LINE = re.compile(r" -> .*: (\d+)x(\d+) ")
_USAGE_STATUS = 2  # the command's exit status for arguments it refuses


class BatchError(Exception):
    """The batch cannot run: its format or options are refused."""


@dataclass
class Job:
    source: str
    output: str
    arguments: list  # format, quality and options of `glyptora convert`
    command: str
    force: bool = False  # convert even when the output is up to date


@dataclass
class Result:
    source: str
    status: str  # "converted", "skipped" or "failed"
    bytes_in: int = 0
    bytes_out: int = 0
    pixels: int = 0
    error: str = ""
    usage_error: bool = False  # the command refused its arguments: every other file would fail alike


@dataclass
class Summary:
    files: int = 0
    converted: int = 0
    skipped: int = 0
    bytes_in: int = 0
    bytes_out: int = 0
    pixels: int = 0
    seconds: float = 0.0
    failures: list = field(default_factory=list)  # (source, reason)

    def add(self, result):
        if result.status == "failed":
            self.failures.append((result.source, result.error))
            return
        self.converted += result.status == "converted"
        self.skipped += result.status == "skipped"
        self.bytes_in += result.bytes_in
        self.bytes_out += result.bytes_out
        self.pixels += result.pixels

    def report(self):
        rate = self.converted / self.seconds if self.seconds > 0 else 0.0
        mpix = self.pixels / 1e6 / self.seconds if self.seconds > 0 else 0.0
        lines = [f"{self.converted} converted, {self.skipped} skipped (up to date), {len(self.failures)} failed "
                 f"of {self.files} files in {self.seconds:.1f} s",
                 f"read {self.bytes_in / 2**20:.1f} MiB, wrote {self.bytes_out / 2**20:.1f} MiB; "
                 f"{rate:.2f} files/s, {mpix:.2f} Mpix/s"]
        lines += [f"failed: {source}: {reason}" for source, reason in self.failures]
        return "\n".join(lines)


def up_to_date(source, output):
    """Whether `output` exists and is at least as new as `source`."""
    try:
        return os.stat(output).st_mtime_ns >= os.stat(source).st_mtime_ns
    except OSError:
        return False


def _launcher():
    # The conversion ends (removing its temporary file) when the worker running it dies.
    setpriv = shutil.which("setpriv")
    return [setpriv, "--pdeathsig", "TERM", "--"] if setpriv else []


def _command_environment(command):
    # The command loads the libglyptora beside it (lib/ next to its bin/), in a build tree as
    # in the installed package.
    path = shutil.which(command)
    if not path:
        return None
    env = dict(os.environ)
    lib = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(path))), "lib")
    env["LD_LIBRARY_PATH"] = os.pathsep.join(filter(None, [lib, env.get("LD_LIBRARY_PATH")]))
    return env


def convert_file(job):
    """One task: converts `job.source` with the command unless its output is up to date."""
    if not job.force and up_to_date(job.source, job.output):
        return Result(job.source, "skipped")
    try:
        os.makedirs(os.path.dirname(job.output) or ".", exist_ok=True)
        run = subprocess.run(_launcher() + [job.command, "convert", job.source, "-o", job.output, *job.arguments],
                             stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                             env=_command_environment(job.command))
    except OSError as e:
        return Result(job.source, "failed", error=str(e))
    if run.returncode != 0:
        lines = run.stderr.strip().splitlines()
        if lines:  # "glyptora: SOURCE: reason"
            reason = lines[-1].removeprefix("glyptora: ").removeprefix(job.source + ": ")
        elif run.returncode < 0:
            reason = f"glyptora convert was ended by signal {-run.returncode}"
        else:
            reason = f"glyptora convert ended with status {run.returncode}"
        return Result(job.source, "failed", error=reason, usage_error=run.returncode == _USAGE_STATUS)
    size = _CONVERTED_LINE.search(run.stdout)
    return Result(job.source, "converted", os.path.getsize(job.source), os.path.getsize(job.output),
                  int(size[1]) * int(size[2]) if size else 0)


def plan(source_dir, output_dir, format, extension, arguments, command, force=False):
    """(jobs, failures): one job per image under `source_dir`, and the sources refused
    because another image of the same folder and name already writes their output."""
    jobs, failures, owners = [], [], {}
    for folder, dirs, files in os.walk(source_dir):
        dirs.sort()
        for name in sorted(files):
            stem, ext = os.path.splitext(name)
            if ext.lower() not in IMAGE_EXTENSIONS:
                continue
            source = os.path.join(folder, name)
            output = os.path.join(output_dir, os.path.relpath(folder, source_dir), stem + extension)
            output = os.path.normpath(output)
            if output in owners:
                failures.append((source, f"{owners[output]} writes {output} already"))
                continue
            owners[output] = source
            jobs.append(Job(source, output, ["-f", format, *arguments], command, force))
    return jobs, failures


class Progress:
    """A bar on standard error, redrawn in place on a terminal, else a line every tenth."""

    def __init__(self, total, stream=sys.stderr):
        self.total, self.done, self.failed, self.stream = total, 0, 0, stream
        self.start, self.tty, self.last_tenth = time.monotonic(), stream.isatty(), -1

    def update(self, result):
        self.done += 1
        self.failed += result.status == "failed"
        tenth = self.done * 10 // max(self.total, 1)
        if not self.tty and tenth == self.last_tenth:
            return
        self.last_tenth = tenth
        filled = self.done * 30 // max(self.total, 1)
        text = (f"[{'#' * filled}{'-' * (30 - filled)}] {self.done}/{self.total} files, {self.failed} failed, "
                f"{time.monotonic() - self.start:.1f} s")
        self.stream.write(("\r" + text) if self.tty else text + "\n")
        self.stream.flush()

    def close(self):
        if self.tty and self.done:
            self.stream.write("\n")


def run_batch(source_dir, output_dir, format, arguments=(), extension=None, client=None, scheduler=None,
              workers=None, show_progress=True, command=None, force=False):
    """Converts every image under `source_dir` into `output_dir` on the Dask cluster of
    `client`, of `scheduler` (an address), or on a new local one with `workers` workers.
    `force` converts outputs that are up to date too. Returns the Summary."""
    from distributed import Client, LocalCluster, as_completed

    extension = extension or (".ktx2" if "astc" in format.lower() else ".dds")
    jobs, refused = plan(source_dir, output_dir, format, extension, list(arguments), command or command_path(), force)
    summary = Summary(files=len(jobs) + len(refused), failures=list(refused))
    start = time.monotonic()
    pending = [job for job in jobs if force or not up_to_date(job.source, job.output)]
    summary.skipped = len(jobs) - len(pending)
    own_cluster = own_client = progress = None
    try:
        if pending and client is None:
            if scheduler:
                client = own_client = Client(scheduler)
            else:
                with _workers_ignoring_interrupts():
                    own_cluster = LocalCluster(n_workers=workers or default_workers(), threads_per_worker=1,
                                               processes=True, dashboard_address=None, silence_logs=logging.ERROR)
                client = own_client = Client(own_cluster)
        run = uuid.uuid4().hex[:8]  # keys of earlier runs on the same client stay apart
        futures = {client.submit(convert_file, job, key=f"glyptora-{run}-{i}-{os.path.basename(job.source)}"):
                   job for i, job in enumerate(pending)}
        progress = Progress(len(pending)) if show_progress else None
        for future in as_completed(futures) if futures else ():
            try:
                result = future.result()
            except Exception as e:  # the task's workers kept dying, or the cluster went away
                result = Result(futures[future].source, "failed", error=f"{type(e).__name__}: {e}")
            if result.usage_error:
                client.cancel(list(futures))
                raise BatchError(result.error)
            summary.add(result)
            if progress:
                progress.update(result)
    finally:
        if progress:
            progress.close()
        if own_client:
            own_client.close()
        if own_cluster:
            own_cluster.close()
    summary.seconds = time.monotonic() - start
    return summary


@contextlib.contextmanager
def _workers_ignoring_interrupts():
    # Worker processes started meanwhile inherit an ignored SIGINT: Ctrl-C stops this process,
    # which then closes the cluster, instead of printing a traceback from every worker.
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, previous)


def default_workers():
    # Each conversion spreads its blocks over every core; a second worker keeps them busy
    # while the other loads, filters and writes.
    return 2


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python -m glyptora.batch",
                                     description="Converts every image under SRC into textures under DST on Dask.")
    parser.add_argument("source", metavar="SRC", help="folder of images (PNG, JPEG, TGA, BMP, PSD, HDR, EXR)")
    parser.add_argument("destination", metavar="DST", help="folder for the textures (same relative paths)")
    parser.add_argument("-f", "--format", required=True, help="destination format, as `glyptora convert -f` takes")
    parser.add_argument("-q", "--quality", choices=QUALITIES, metavar="QUALITY",
                        help="fastest, normal (default), production, highest, or 0-3")
    parser.add_argument("--ext", choices=("dds", "ktx2"), help="container (default: dds, ktx2 for ASTC)")
    parser.add_argument("--no-mips", action="store_true", help="level 0 only")
    parser.add_argument("--perceptual", action="store_true", help="luminance-weighted error (BC1 to BC3)")
    parser.add_argument("--gpu-fallback", action="store_true", help="encode on a GPU where one is usable")
    parser.add_argument("--scheduler", metavar="ADDRESS", help="Dask scheduler, e.g. tcp://host:8786 "
                        "(its workers need the glyptora command and SRC and DST at the same paths)")
    parser.add_argument("--workers", type=int, help="workers of the local cluster (default: %(default)s)",
                        default=default_workers())
    parser.add_argument("--glyptora", metavar="PATH", help="the glyptora command (default: GLYPTORA_COMMAND, "
                        "the package's or the build's, or PATH)")
    parser.add_argument("--force", action="store_true", help="convert outputs newer than their source too "
                        "(after a change of format or options)")
    parser.add_argument("--no-progress", action="store_true", help="no progress bar")
    args = parser.parse_args(argv)
    if not os.path.isdir(args.source):
        parser.error(f"{args.source} is not a folder")
    if args.workers < 1:
        parser.error("--workers must be at least 1")
    options = (["-q", args.quality] if args.quality else []) + ["--" + name for name in
                                                                  ("no-mips", "perceptual", "gpu-fallback")
                                                                  if getattr(args, name.replace("-", "_"))]
    command = args.glyptora or command_path()
    if not args.scheduler and not shutil.which(command):  # remote workers may have it where this machine has not
        parser.error(f"the glyptora command was not found ({command}); give --glyptora PATH")
    try:
        summary = run_batch(args.source, args.destination, args.format, options, args.ext and "." + args.ext,
                            scheduler=args.scheduler, workers=args.workers, show_progress=not args.no_progress,
                            command=os.path.abspath(command) if os.path.sep in command else command,
                            force=args.force)
    except BatchError as e:
        print(f"glyptora.batch: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("glyptora.batch: interrupted; the same command resumes where this run stopped", file=sys.stderr)
        return 130
    print(summary.report())
    return 1 if summary.failures else 0


if __name__ == "__main__":
    # Run through the package's module, so that the workers unpickle glyptora.batch.convert_file.
    from glyptora.batch import main as package_main

    sys.exit(package_main())
