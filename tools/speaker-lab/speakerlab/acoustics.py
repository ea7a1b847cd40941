"""Sound fields of baffled radiators: what a microphone point sees of a cone, a port or the
rear wave of an open back.

Fields are returned as (P, Uz): P = p / (rho c), the pressure in units of particle velocity,
and Uz the particle velocity along +z, the direction away from the baffle (the baffle is the
plane z = 0, sources radiate into z > 0). Time convention exp(+j w t), so a delay is
exp(-j k r). Everything is per unit source velocity; the driver model supplies the velocity.

A pressure-gradient microphone on the z axis facing the baffle gives A P + B Uz (in the same
units), which is why both are returned together.
"""

from __future__ import annotations

import numpy as np

TWO_PI = 2.0 * np.pi


def piston_on_axis(k: np.ndarray, radius: np.ndarray, z: float) -> tuple[np.ndarray, np.ndarray]:
    """Rigid baffled piston of the given radius, velocity 1, on its axis at distance z.

    P = exp(-jkz) - exp(-jk sqrt(z^2 + a^2)); Uz = -dP/dz / (jk)
      = exp(-jkz) - (z / sqrt(z^2 + a^2)) exp(-jk sqrt(z^2 + a^2)).
    """
    k = np.asarray(k, dtype=float)
    rim = np.sqrt(z * z + np.asarray(radius, dtype=float) ** 2)
    direct = np.exp(-1j * k * z)
    edge = np.exp(-1j * k * rim)
    return direct - edge, direct - (z / rim) * edge


def _polar_disc(rings: int, spokes: int) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Midpoint polar grid on the unit disc: x, y and area of each cell (areas sum to pi)."""
    rho = (np.arange(rings) + 0.5) / rings
    phi = (np.arange(spokes) + 0.5) * TWO_PI / spokes
    rr, pp = np.meshgrid(rho, phi, indexing="ij")
    area = (rr / rings) * (TWO_PI / spokes)
    return (rr * np.cos(pp)).ravel(), (rr * np.sin(pp)).ravel(), area.ravel()


def rayleigh_disc(k: np.ndarray, radius: np.ndarray, offset: tuple[float, float], z: float,
                  rings: int = 48, spokes: int = 128, chunk: int = 96):
    """Field of a baffled disc of uniform velocity 1 by the numerical Rayleigh integral.

    offset: (x, y) of the field point relative to the disc centre, z its distance from the
    baffle. The radius may change with frequency (one value per k): the grid is laid on the
    disc of that frequency, so the cell size follows the radiating area.

      P  = (jk / 2 pi)  integral exp(-jkR) / R dS
      Uz = (1 / 2 pi)   integral (1 + jkR) exp(-jkR) z / R^3 dS
    """
    k = np.atleast_1d(np.asarray(k, dtype=float))
    radius = np.broadcast_to(np.asarray(radius, dtype=float), k.shape)
    gx, gy, garea = _polar_disc(rings, spokes)
    px, py = offset
    pressure = np.empty(k.shape, dtype=complex)
    velocity = np.empty(k.shape, dtype=complex)
    for start in range(0, k.size, chunk):
        sl = slice(start, start + chunk)
        a = radius[sl, None]
        kk = k[sl, None]
        dx = px - a * gx[None, :]
        dy = py - a * gy[None, :]
        r = np.sqrt(dx * dx + dy * dy + z * z)
        cells = garea[None, :] * a * a
        wave = np.exp(-1j * kk * r) / r * cells
        pressure[sl] = (1j * k[sl] / TWO_PI) * wave.sum(axis=1)
        velocity[sl] = (z / TWO_PI) * ((1.0 + 1j * kk * r) * wave / (r * r)).sum(axis=1)
    return pressure, velocity


def baffled_point(k: np.ndarray, offset: tuple[float, float], z: float):
    """A small baffled source (a port mouth) of volume velocity 1: the Rayleigh kernel of a
    single cell."""
    k = np.asarray(k, dtype=float)
    r = float(np.sqrt(offset[0] ** 2 + offset[1] ** 2 + z * z))
    wave = np.exp(-1j * k * r) / r
    return (1j * k / TWO_PI) * wave, (z / TWO_PI) * (1.0 + 1j * k * r) * wave / (r * r)


def free_point(k: np.ndarray, path: float, cos_axis: float):
    """A monopole in free space of volume velocity 1 reaching the point over `path` metres,
    arriving at an angle whose cosine to the +z axis is cos_axis (the rear wave of an open
    back, which comes round the cabinet edge)."""
    k = np.asarray(k, dtype=float)
    p = (1j * k / (2.0 * TWO_PI)) * np.exp(-1j * k * path) / path
    return p, p * (1.0 + 1.0 / (1j * k * path)) * cos_axis


def far_field_directivity(ka_sin: np.ndarray) -> np.ndarray:
    """2 J1(x) / x of a rigid piston (for checking the numerical integral)."""
    from scipy.special import j1

    x = np.asarray(ka_sin, dtype=float)
    out = np.ones_like(x)
    nz = np.abs(x) > 1e-9
    out[nz] = 2.0 * j1(x[nz]) / x[nz]
    return out
