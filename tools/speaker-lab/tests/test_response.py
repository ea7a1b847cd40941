"""Minimum phase by the folded cepstrum, fractional-octave smoothing."""

import numpy as np
import pytest

from speakerlab import response as rs


def _analog(freqs):
    s = 2j * np.pi * np.asarray(freqs, dtype=float)
    w1, w2, w3 = 2 * np.pi * 90.0, 2 * np.pi * 3500.0, 2 * np.pi * 12000.0
    return (s * s / (s * s + s * w1 / 1.1 + w1 * w1)
            * (s * s + s * w2 / 4.0 + w2 * w2) / (s * s + s * w2 / 1.0 + w2 * w2)
            * w3 * w3 / (s * s + s * w3 / 0.8 + w3 * w3))


@pytest.fixture(scope="module")
def analog_min_phase():
    grid = rs.log_grid()
    return rs.minimum_phase(grid, np.abs(_analog(grid)))


def test_cepstrum_recovers_the_phase_of_a_minimum_phase_system(analog_min_phase):
    freqs = np.geomspace(20.0, 10000.0, 200)
    error = np.degrees(np.angle(analog_min_phase(freqs) / _analog(freqs)))
    low = freqs < 3000.0
    assert np.max(np.abs(error[low])) < 1.0
    assert np.max(np.abs(error)) < 3.0
    assert np.max(np.abs(20 * np.log10(np.abs(analog_min_phase(freqs) / _analog(freqs))))) < 0.01


def test_bulk_delay_and_excess_phase_are_removed(analog_min_phase):
    """A delayed response with an all-pass factor has the same minimum-phase target."""
    grid = rs.log_grid()
    s = 2j * np.pi * grid
    w = 2 * np.pi * 700.0
    allpass = (s * s - s * w / 2.0 + w * w) / (s * s + s * w / 2.0 + w * w)
    delayed = _analog(grid) * allpass * np.exp(-s * 0.0023)
    target = rs.minimum_phase(grid, np.abs(delayed))
    freqs = np.geomspace(30.0, 8000.0, 100)
    assert np.max(np.abs(np.angle(target(freqs) / analog_min_phase(freqs)))) < 1e-6


def test_smoothing_keeps_a_flat_response_and_a_power_level():
    grid = rs.log_grid(20.0, 20000.0)
    assert np.allclose(rs.smooth_power(grid, np.full(grid.shape, 3.0), 1 / 6), 3.0)
    # two equal-power sources, incoherent on average: a comb smooths to their power sum
    comb = np.abs(1.0 + np.exp(-2j * np.pi * grid * 0.002))
    high = grid > 4000.0
    assert np.max(np.abs(20 * np.log10(rs.smooth_power(grid, comb, 1 / 3)[high] / np.sqrt(2.0)))) < 0.3
    assert np.max(np.abs(20 * np.log10(comb[high] / np.sqrt(2.0)))) > 20.0
    with pytest.raises(ValueError):  # only on a logarithmic grid
        rs.smooth_power(np.linspace(20.0, 20000.0, 500), np.ones(500), 1 / 6)


@pytest.mark.parametrize("fraction", [1 / 6, 1 / 3])
def test_smoothing_window_is_the_stated_fraction_of_an_octave_at_half_height(fraction):
    grid = rs.log_grid(100.0, 10000.0)
    spike = np.zeros(grid.shape)
    spike[len(grid) // 2] = 1.0
    power = rs.smooth_power(grid, spike, fraction) ** 2
    above = np.log2(grid[power >= 0.5 * power.max()])
    # the half-height width of the sampled window, within one grid step
    assert abs((above[-1] - above[0]) - fraction) <= 1.0 / rs.POINTS_PER_OCTAVE + 1e-9
