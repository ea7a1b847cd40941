"""Plot and summary of one run of tarnlow_bench: cost per sample against block length for
every band (4x12, the heaviest speaker, and the mean over all five), and the key ratios."""
import json
import sys
from collections import defaultdict

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

BANDS = ["44", "48", "88", "96", "176", "192"]
RATES = {"44": 44100, "48": 48000, "88": 88200, "96": 96000, "176": 176400, "192": 192000}
SPEAKERS = ["1x12", "2x12", "4x12", "4x10", "4x10Bass"]
BLOCKS = [1, 16, 64, 256, 4096]


def medians(path):
    with open(path) as file:
        results = json.load(file)["benchmarks"]
    found = {}
    for entry in results:
        if entry.get("aggregate_name", "median") != "median":
            continue
        name = entry.get("run_name", entry["name"]).replace("_median", "")
        found[name] = entry
    return found


def main(results_path, plot_path):
    found = medians(results_path)
    cost = defaultdict(dict)
    for name, entry in found.items():
        parts = name.split("/")
        if parts[0] == "CalcA" and len(parts) == 4:
            cost[(parts[1], parts[2])][int(parts[3])] = entry["ns/sample"]

    figure, axes = plt.subplots(1, 2, figsize=(11, 4.2), sharey=True)
    for band in BANDS:
        heavy = [cost[("4x12", band)].get(block) for block in BLOCKS]
        if None not in heavy:
            axes[0].plot(BLOCKS, heavy, marker="o", label=f"{band} kHz band")
        mean = [sum(cost[(s, band)].get(block, 0) for s in SPEAKERS) / len(SPEAKERS) for block in BLOCKS]
        axes[1].plot(BLOCKS, mean, marker="o", label=f"{band} kHz band")
    for axis, title in zip(axes, ["4x12 (heaviest)", "mean of the five speakers"]):
        axis.set_xscale("log", base=2)
        axis.set_yscale("log")
        axis.set_xticks(BLOCKS, [str(b) for b in BLOCKS])
        axis.set_xlabel("samples per CalcA call")
        axis.set_title(title)
        axis.grid(True, which="both", alpha=0.3)
    repetitions = max((entry.get("repetitions", 1) for entry in found.values()), default=1)
    axes[0].set_ylabel(f"ns per sample (median of {repetitions})")
    axes[1].legend()
    figure.tight_layout()
    figure.savefig(plot_path, dpi=110)

    def value(name, counter="ns/sample"):
        entry = found.get(name)
        return None if entry is None else entry.get(counter)

    print("\nsummary (medians)")
    for band in ["48", "192"]:
        wave = value(f"Network/wavefront/4x12/{band}")
        plain = value(f"Network/plain/4x12/{band}")
        conv = value(f"Convolution/4x12/{band}")
        calc = cost[("4x12", band)].get(64)
        if None in (wave, plain, conv):
            continue
        print(f"4x12 {band}: wavefront {wave:.1f} ns/sample, plain {plain:.1f} ({plain / wave:.2f}x), "
              f"convolution {conv:.1f} ({conv / wave:.2f}x), CalcA block 64 {calc}")
    for band in BANDS:
        row = cost[("4x12", band)]
        if 1 in row and 64 in row:
            print(f"4x12 {band}: block 1 / block 64 per sample = {row[1] / row[64]:.2f}; "
                  f"ns per second of audio at block 64 = {row[64] * RATES[band] / 1e6:.2f} ms")
        visited = value(f"CalcA/4x12/{band}/64/afterAllBands")
        if visited is not None and 64 in row:
            print(f"4x12 {band}: block 64 after visiting every band {visited:.1f} ns/sample "
                  f"(one band only: {row[64]:.1f})")
    flops = value("FlopCount/4x12/48", "flops/sample")
    if flops:
        for width in ["scalar", "sse", "avx2"]:
            rate = value(f"PeakRate/{width}", "Gflop/s")
            if rate:
                print(f"arithmetic bound 4x12, {flops:.0f} flops/sample: {width} {flops / rate:.1f} ns/sample "
                      f"({rate:.2f} Gflop/s)")
    for name, entry in sorted(found.items()):
        if name.startswith("Setup/") or name.startswith("Memory/"):
            extra = f", {entry['bytes']:.0f} bytes" if "bytes" in entry else ""
            print(f"{name}: {entry['cpu_time']:.2f} {entry['time_unit']} cpu{extra}")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
