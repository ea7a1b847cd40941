#!/usr/bin/python3
"""Plots the magnitude responses of the thirty models from their impulse responses.

usage: plot_responses.py IR-DIRECTORY OUTPUT.png
IR-DIRECTORY holds ir-<speaker>-<mic>-<position>.wav as written by tarnlow-render --ir.
"""
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from scipy.io import wavfile
import warnings

# libsndfile writes a PEAK chunk that this reader does not know; the samples are read all the same.
warnings.filterwarnings("ignore", category=wavfile.WavFileWarning)

SPEAKERS = ["1x12", "2x12", "4x12", "4x10", "4x10Bass"]
MICS = ["dynamic", "ribbon"]
POSITIONS = ["cap", "edge", "room"]


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    directory, output = Path(argv[1]), Path(argv[2])
    figure, axes = plt.subplots(1, len(SPEAKERS), figsize=(22, 4.5), sharey=True)
    for axis, speaker in zip(axes, SPEAKERS):
        for mic, style in zip(MICS, ["-", "--"]):
            for position in POSITIONS:
                path = directory / f"ir-{speaker}-{mic}-{position}.wav"
                try:
                    rate, samples = wavfile.read(path)
                except (OSError, ValueError) as error:
                    print(f"plot_responses: cannot read {path}: {error}", file=sys.stderr)
                    return 1
                spectrum = np.fft.rfft(samples.astype(np.float64), 1 << 16)
                frequencies = np.fft.rfftfreq(1 << 16, 1.0 / rate)
                keep = (frequencies >= 30) & (frequencies <= 20000)
                level = 20 * np.log10(np.maximum(np.abs(spectrum[keep]), 1e-12))
                axis.semilogx(frequencies[keep], level, style, label=f"{mic} {position}")
        axis.set_title(speaker)
        axis.set_xlabel("Hz")
        axis.set_ylim(-60, 10)
        axis.grid(True, which="both", alpha=0.3)
    axes[0].set_ylabel("dB")
    axes[-1].legend(fontsize=8)
    figure.tight_layout()
    temporary = output.with_name(output.name + ".partial.png")
    figure.savefig(temporary, dpi=90)
    temporary.replace(output)
    print(output)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
