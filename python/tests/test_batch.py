"""Batch conversion on a local Dask cluster of two workers, one of them killed mid-run."""
import os
import shutil
import signal
import threading
import time

import numpy as np
import pytest
from PIL import Image

distributed = pytest.importorskip("distributed")
psutil = pytest.importorskip("psutil")
from glyptora.batch import main as batch_main, run_batch  # noqa: E402

ARGS = ["-q", "production"]  # slow enough for a worker to be caught converting


def kill_a_worker_while_converting(client, killed):
    """Kills (SIGKILL) the first worker seen running a `glyptora convert` child, and records
    the child's source file and process."""
    pids = list(client.run(os.getpid).values())
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and not killed:
        for pid in pids:
            try:
                child = next(c for c in psutil.Process(pid).children() if "convert" in c.cmdline())
                source = child.cmdline()[child.cmdline().index("convert") + 1]
                os.kill(pid, signal.SIGKILL)
            except (StopIteration, psutil.Error, ValueError):
                continue
            killed.update(source=source, child=child)
            return
        time.sleep(0.005)


def test_batch_survives_a_killed_worker_and_resumes(tmp_path, command, capsys):
    src, dst, expected = tmp_path / "src", tmp_path / "dst", tmp_path / "expected"
    (src / "sub").mkdir(parents=True)
    expected.mkdir()
    rng = np.random.default_rng(7)
    for i in range(4):  # four distinct images, three copies of each
        Image.fromarray(rng.integers(0, 256, (40, 48, 4), dtype=np.uint8)).save(src / f"image{i}.png")
        command("convert", src / f"image{i}.png", "-o", expected / f"image{i}.dds", "-f", "bc7", *ARGS)
        for copy in (f"copy{i}.png", f"sub/image{i}.png"):
            shutil.copy(src / f"image{i}.png", src / copy)
    (src / "sub" / "broken.png").write_bytes(b"\x89PNG not really")
    (src / "notes.txt").write_text("not an image")

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=None,
                                  silence_logs=50) as cluster, distributed.Client(cluster) as client:
        killed = {}
        killer = threading.Thread(target=kill_a_worker_while_converting, args=(client, killed))
        killer.start()
        summary = run_batch(src, dst, "bc7", ARGS, client=client, show_progress=False)
        killer.join()

    assert killed, "no worker was caught converting"
    killed["child"].wait(10)  # the conversion in progress ended with its worker
    assert summary.files == 13 and summary.converted == 12
    assert [os.path.basename(f) for f, _ in summary.failures] == ["broken.png"]
    outputs = sorted(str(p.relative_to(dst)) for p in dst.rglob("*") if p.is_file())
    assert outputs == sorted([f"image{i}.dds" for i in range(4)] + [f"copy{i}.dds" for i in range(4)] +
                             [f"sub/image{i}.dds" for i in range(4)])  # no temporary files left
    for name in outputs:
        assert (dst / name).read_bytes() == (expected / f"image{name[-5]}.dds").read_bytes(), name

    # A second run converts only what is missing or older than its source.
    os.utime(src / "copy2.png", (time.time() + 5, time.time() + 5))
    (dst / "sub" / "image3.dds").unlink()
    assert batch_main([str(src), str(dst), "-f", "bc7", *ARGS, "--workers", "1", "--no-progress"]) == 1
    report = capsys.readouterr().out
    assert "2 converted, 10 skipped (up to date), 1 failed of 13 files" in report
    assert "failed: " + str(src / "sub" / "broken.png") in report
    assert (dst / "copy2.dds").read_bytes() == (expected / "image2.dds").read_bytes()
