#!/usr/bin/python3
"""Benchmark pairs made from real scans, and scores of a tool's result.

The volumes are the brain templates and atlases of Debian's mricron-data
(/usr/share/mricron/templates): a 1 mm T1 brain (ch2, 181x217x181), the same
brain at 0.5 mm (ch2better), and a label atlas in the 1 mm space (aal). Each
case is a folder with reference.nii.gz, model.nii.gz, label images where the
case has them, and the truth:

- truth.txt: for motion cases, the 4x4 matrix (column vectors, ITK's LPS world
  coordinates, mm) that maps a reference point to the model point that shows
  the same anatomy, the convention of an ITK transform file;
- truth-disp.nii.gz: for warp cases, the displacement u on the reference grid
  (LPS components): reference point x shows what the model shows at x + u(x).

A tool's result is scored as users see it: the mean distance between where the
result and the truth send a point (over the model's foreground for motions,
the reference's for warps), and the mean Dice of the model's labels carried
onto the reference against the reference's labels.

usage:
  realdata.py make DIR [--set affine|elastic|all]     write the cases
  realdata.py score CASE (--tfm F | --field F [--then-tfm G] | --identity)
  realdata.py list DIR                                   the cases of DIR
Scores print as one JSON object a line. Needs python3-nibabel and
python3-scipy (Debian), so run it with /usr/bin/python3.
"""
import json
import math
import os
import sys

import nibabel as nib
import numpy as np
from scipy import ndimage

TEMPLATES = "/usr/share/mricron/templates"
RAS_TO_LPS = np.diag([-1.0, -1.0, 1.0, 1.0])


# ---------------------------------------------------------------- geometry
def rotation(ax, ay, az):
    """Rotation about x, then y, then z, angles in degrees."""
    cx, sx = math.cos(math.radians(ax)), math.sin(math.radians(ax))
    cy, sy = math.cos(math.radians(ay)), math.sin(math.radians(ay))
    cz, sz = math.cos(math.radians(az)), math.sin(math.radians(az))
    rx = np.array([[1, 0, 0], [0, cx, -sx], [0, sx, cx]])
    ry = np.array([[cy, 0, sy], [0, 1, 0], [-sy, 0, cy]])
    rz = np.array([[cz, -sz, 0], [sz, cz, 0], [0, 0, 1]])
    return rz @ ry @ rx


def motion(center, angles=(0, 0, 0), shift=(0, 0, 0), scale=(1, 1, 1)):
    """4x4 map p -> R S (p - c) + c + t, in world mm."""
    m = np.eye(4)
    lin = rotation(*angles) @ np.diag(scale)
    m[:3, :3] = lin
    c = np.asarray(center, float)
    m[:3, 3] = c - lin @ c + np.asarray(shift, float)
    return m


# ---------------------------------------------------------------- images
class Image:
    """Voxels and the voxel-to-world matrix in LPS (ITK's physical space)."""

    def __init__(self, data, affine, labels=False):
        self.data = data
        self.affine = affine  # index (i, j, k, 1) -> LPS world
        self.labels = labels

    @staticmethod
    def load(path, labels=False):
        im = nib.load(path)
        data = np.asanyarray(im.dataobj)
        aff = RAS_TO_LPS @ im.affine
        if data.ndim == 2:  # a 2-D image: one slice along k
            data = data[:, :, None]
        while data.ndim > 3 and data.shape[-1] == 1:
            data = data[..., 0]
        return Image(data, aff, labels)

    def save(self, path, two_d=False):
        data = self.data[:, :, 0] if two_d else self.data
        im = nib.Nifti1Image(data, RAS_TO_LPS @ self.affine)
        im.set_qform(RAS_TO_LPS @ self.affine, code=1)
        im.set_sform(RAS_TO_LPS @ self.affine, code=1)
        if self.labels:
            im.header.set_intent("label")
        nib.save(im, path)

    def world_points(self, step=1):
        """World positions of the voxel centres (every step-th), shape (3, n)."""
        idx = np.mgrid[tuple(slice(0, s, step) for s in self.data.shape[:3])]
        idx = idx.reshape(3, -1).astype(float)
        return self.affine[:3, :3] @ idx + self.affine[:3, 3:4], idx

    def sample(self, pts, order):
        """Values at world points (3, n); 0 outside."""
        inv = np.linalg.inv(self.affine)
        vox = inv[:3, :3] @ pts + inv[:3, 3:4]
        data = self.data.astype(np.float32)
        if data.shape[2] == 1:  # 2-D: sample in the slice
            out = ndimage.map_coordinates(data[:, :, 0], vox[:2], order=order, mode="constant")
            out[np.abs(vox[2]) > 0.5] = 0
            return out
        return ndimage.map_coordinates(data, vox, order=order, mode="constant")

    def foreground(self, step=1):
        """World points (and voxel indices) of the foreground (every step-th)."""
        pts, idx = self.world_points(step)
        sub = self.data[tuple(slice(0, s, step) for s in self.data.shape[:3])].ravel()
        if self.labels:
            keep = sub > 0
        else:
            keep = sub > 0.15 * np.percentile(sub[sub > 0], 99)
        return pts[:, keep], idx[:, keep]


def resampled(src, grid_like, world_to_src, order):
    """src seen through world_to_src on the grid of grid_like."""
    pts, _ = grid_like.world_points()
    q = world_to_src(pts) if callable(world_to_src) else apply(world_to_src, pts)
    vals = src.sample(q, 0 if src.labels else order).reshape(grid_like.data.shape)
    dtype = src.data.dtype
    if np.issubdtype(dtype, np.integer):
        info = np.iinfo(dtype)
        vals = np.clip(np.rint(vals), info.min, info.max)
    return Image(vals.astype(dtype), grid_like.affine.copy(), src.labels)


def block_average(img):
    """img averaged over 2x2x2 blocks of voxels (a trailing odd voxel dropped),
    each new voxel centred on its block."""
    n = [s // 2 for s in img.data.shape[:3]]
    d = img.data[: 2 * n[0], : 2 * n[1], : 2 * n[2]].astype(np.float64)
    d = d.reshape(n[0], 2, n[1], 2, n[2], 2).mean(axis=(1, 3, 5))
    if np.issubdtype(img.data.dtype, np.integer):
        d = np.rint(d)
    half = np.eye(4)
    half[:3, :3] *= 2
    half[:3, 3] = 0.5
    return Image(d.astype(img.data.dtype), img.affine @ half, img.labels)


def moved_header(img, m):
    """The same voxels with the world moved by m: world m(p) shows what p showed."""
    return Image(img.data, m @ img.affine, img.labels)


def smooth_warp(img, amplitude, seed):
    """A smooth displacement (3, n) at the voxel centres of img, at most
    `amplitude` mm over the foreground: a sum of long plane waves."""
    rng = np.random.default_rng(seed)
    pts, _ = img.world_points()
    centre = pts.mean(axis=1, keepdims=True)
    u = np.zeros_like(pts)
    for _ in range(6):
        k = rng.normal(size=3)
        k /= np.linalg.norm(k)
        wavelength = rng.uniform(70.0, 130.0)
        direction = rng.normal(size=3)
        phase = rng.uniform(0, 2 * math.pi)
        u += direction[:, None] * np.sin(2 * math.pi * (k @ (pts - centre)) / wavelength + phase)
    fg = img.data.ravel() > 0.15 * np.percentile(img.data[img.data > 0], 99)
    u *= amplitude / np.linalg.norm(u[:, fg], axis=0).max()
    return u


def save_vectors(path, like, u):
    """A displacement (3, n) on the grid of `like` as an ITK vector NIfTI."""
    shape = like.data.shape[:3]
    vec = np.stack([c.reshape(shape) for c in u], axis=-1)[:, :, :, None, :].astype(np.float32)
    im = nib.Nifti1Image(vec, RAS_TO_LPS @ like.affine)
    im.header.set_intent("vector")
    im.set_qform(RAS_TO_LPS @ like.affine, code=1)
    im.set_sform(RAS_TO_LPS @ like.affine, code=1)
    nib.save(im, path)


def load_vectors(path):
    """An ITK vector image: (3, n) components at its voxel centres and its grid."""
    im = nib.load(path)
    d = np.asanyarray(im.dataobj).astype(np.float64)
    shape = d.shape[:3] if d.ndim >= 3 else d.shape[:2] + (1,)
    comps = d.shape[-1]
    d = d.reshape(shape + (comps,))
    u = np.zeros((3, int(np.prod(shape))))
    for c in range(min(comps, 3)):
        u[c] = d[..., c].ravel()
    return u, Image(np.zeros(shape, np.uint8), RAS_TO_LPS @ im.affine)


# ---------------------------------------------------------------- transforms
def read_tfm(path):
    """An ITK transform file with one affine-like transform, as a 4x4 matrix
    that maps reference points to model points."""
    params = fixed = None
    kind = ""
    for line in open(path):
        if line.startswith("Transform:"):
            kind = line.split(":", 1)[1].strip()
        elif line.startswith("Parameters:"):
            params = [float(v) for v in line.split(":", 1)[1].split()]
        elif line.startswith("FixedParameters:"):
            fixed = [float(v) for v in line.split(":", 1)[1].split()]
    if params is None:
        raise ValueError(f"{path}: no Parameters line")
    dim = 2 if kind.endswith("_2_2") else 3
    if not (kind.startswith("AffineTransform") or kind.startswith("MatrixOffsetTransformBase")):
        raise ValueError(f"{path}: transform type {kind} is not read here")
    a = np.array(params[: dim * dim]).reshape(dim, dim)
    t = np.array(params[dim * dim: dim * dim + dim])
    c = np.array(fixed[:dim]) if fixed else np.zeros(dim)
    m = np.eye(4)
    m[:dim, :dim] = a
    m[:dim, 3] = t + c - a @ c
    return m


def write_tfm(path, m, dim=3):
    """The 4x4 matrix m as an ITK affine transform file (centre 0)."""
    a = m[:dim, :dim]
    t = m[:dim, 3]
    with open(path, "w") as f:
        f.write("#Insight Transform File V1.0\n#Transform 0\n")
        f.write(f"Transform: AffineTransform_double_{dim}_{dim}\n")
        f.write("Parameters: " + " ".join(f"{v:.17g}" for v in list(a.ravel()) + list(t)) + "\n")
        f.write("FixedParameters: " + " ".join(["0"] * dim) + "\n")


def apply(m, pts):
    return m[:3, :3] @ pts + m[:3, 3:4]


def field_map(path):
    """A displacement field file as a point map x -> x + u(x) (trilinear)."""
    u, grid = load_vectors(path)
    shape = grid.data.shape
    inv = np.linalg.inv(grid.affine)
    comps = [c.reshape(shape).astype(np.float32) for c in u]

    def mapping(pts):
        vox = inv[:3, :3] @ pts + inv[:3, 3:4]
        if shape[2] == 1:
            d = [ndimage.map_coordinates(c[:, :, 0], vox[:2], order=1, mode="nearest") for c in comps]
        else:
            d = [ndimage.map_coordinates(c, vox, order=1, mode="nearest") for c in comps]
        return pts + np.stack(d)

    return mapping


# ---------------------------------------------------------------- cases
def template(name, labels=False):
    return Image.load(os.path.join(TEMPLATES, name), labels)


def write_case(root, name, info, ref, model, ref_labels=None, model_labels=None,
               truth=None, disp=None, two_d=False):
    d = os.path.join(root, name)
    os.makedirs(d, exist_ok=True)
    ref.save(os.path.join(d, "reference.nii.gz"), two_d)
    model.save(os.path.join(d, "model.nii.gz"), two_d)
    if ref_labels is not None:
        ref_labels.save(os.path.join(d, "reference-labels.nii.gz"), two_d)
        model_labels.save(os.path.join(d, "model-labels.nii.gz"), two_d)
    if truth is not None:
        np.savetxt(os.path.join(d, "truth.txt"), truth)
        write_tfm(os.path.join(d, "truth.tfm"), truth, 2 if two_d else 3)
    if disp is not None:
        save_vectors(os.path.join(d, "truth-disp.nii.gz"), ref, disp)
    info = dict(info, name=name, two_d=two_d, labels=ref_labels is not None,
                label_images=bool(ref.labels))
    json.dump(info, open(os.path.join(d, "case.json"), "w"), indent=1)
    print(f"  {name}: {info['what']}", flush=True)


def make_affine(root):
    ch2 = template("ch2.nii.gz")
    aal = template("aal.nii.gz", labels=True)
    c = ch2.world_points()[0].mean(axis=1)

    # A resampled copy moved by a similarity transform (interpolated voxels).
    t = motion(c, (6, -4, 8), (7, -5, 4), (1.06,) * 3)
    inv = np.linalg.inv(t)
    write_case(root, "mri1mm-similarity", {"kind": "affine", "dof": 7,
               "what": "1 mm T1 resampled through a rigid motion and a 6 % scale"},
               ch2, resampled(ch2, ch2, inv, 3), aal, resampled(aal, aal, inv, 0), truth=t)

    # The 0.5 mm scan with its header moved rigidly, onto the same scan
    # averaged over 2x2x2 blocks to 1 mm voxels. (The 1 mm template is not
    # placed exactly where the 0.5 mm one is, by about 0.7 mm, so it cannot
    # serve as the reference of a known motion.)
    better = template("ch2better.nii.gz")
    t = motion(c, (-5, 7, 4), (-6, 8, -3))
    write_case(root, "mri05-onto-1mm-rigid", {"kind": "affine", "dof": 6,
               "what": "0.5 mm T1, header moved rigidly, onto the same scan averaged to 1 mm"},
               block_average(better), moved_header(better, t), truth=t)

    # A label atlas moved by rotation, anisotropic scale and shift (header only).
    t = motion(c, (4, 6, -7), (5, 3, -6), (1.08, 0.94, 1.03))
    write_case(root, "atlas-anisotropic", {"kind": "affine", "dof": 9,
               "what": "label atlas, header moved by rotation, anisotropic scale and shift"},
               aal, moved_header(aal, t), truth=t)

    # Held out: cases added after the defaults were chosen on the ones above,
    # to check that the choice carries over to other motions.
    t = motion(c, (-7, 3, 5), (-4, 7, 2), (0.95, 1.07, 0.97))
    write_case(root, "atlas-anisotropic2", {"kind": "affine", "dof": 9,
               "what": "label atlas, header moved by another rotation, anisotropic scale and shift"},
               aal, moved_header(aal, t), truth=t)
    t = motion(c, (-3, 9, -6), (-8, 4, 9), (1.04, 0.97, 1.02))
    inv = np.linalg.inv(t)
    write_case(root, "mri1mm-anisotropic", {"kind": "affine", "dof": 9,
               "what": "1 mm T1 resampled through a rotation, an anisotropic scale and a shift"},
               ch2, resampled(ch2, ch2, inv, 3), aal, resampled(aal, aal, inv, 0), truth=t)
    # Two other atlases of the same space: one with its header moved, one
    # resampled (nearest label) through a scale along rotated axes, which
    # only 12 degrees of freedom express.
    ho = template("HarvardOxford-cort-maxprob-thr0-1mm.nii.gz", labels=True)
    t = motion(c, (5, -6, 3), (-3, -5, 7), (0.96, 1.05, 1.04))
    write_case(root, "atlas-cortex-anisotropic", {"kind": "affine", "dof": 9,
               "what": "cortical label atlas, header moved by rotation, anisotropic scale and shift"},
               ho, moved_header(ho, t), truth=t)
    ba = template("brodmann.nii.gz", labels=True)
    t = motion(c, (6, 4, -5), (4, -6, 3), (1.05, 0.95, 1.02))
    write_case(root, "atlas-areas-affine", {"kind": "affine", "dof": 12,
               "what": "area label atlas resampled (nearest label) through a rotation, a scale per axis and a shift"},
               ba, resampled(ba, ba, np.linalg.inv(t), 0), truth=t)
    # Motions of about a millimetre and half a degree, resampled onto the
    # reference's own grid, as between two frames of one session.
    for name, ang, sh in (("mri1mm-small-motion", (0.5, -0.3, 0.4), (0.4, -0.3, 0.2)),
                          ("mri1mm-small-motion2", (1.0, 0.0, -0.5), (0.3, 0.7, -0.2))):
        t = motion(c, ang, sh)
        inv = np.linalg.inv(t)
        write_case(root, name, {"kind": "affine", "dof": 6,
                   "what": "1 mm T1 resampled onto its own grid through a motion of about 1 mm and 0.5 degrees"},
                   ch2, resampled(ch2, ch2, inv, 3), aal, resampled(aal, aal, inv, 0), truth=t)
    t = motion(c, (10, -8, 12), (10, -8, 6))
    write_case(root, "mri1mm-rigid-large", {"kind": "affine", "dof": 6,
               "what": "1 mm T1, header moved by a large rotation (up to 12 degrees) and a 14 mm shift"},
               ch2, moved_header(ch2, t), truth=t)

    # Stored flipped in i and k, with an oblique header (12 degrees) and a motion.
    flip = np.eye(4)
    flip[0, 0], flip[0, 3] = -1, ch2.data.shape[0] - 1
    flip[2, 2], flip[2, 3] = -1, ch2.data.shape[2] - 1
    stored = Image(ch2.data[::-1, :, ::-1].copy(), ch2.affine @ flip)
    t = motion(c, (12, -3, 5), (4, 6, -2))
    write_case(root, "mri1mm-oblique-flipped", {"kind": "affine", "dof": 6,
               "what": "1 mm T1 stored flipped in two axes, oblique header (12 degrees) and a shift"},
               ch2, moved_header(stored, t), truth=t)

    # Held out, second set: cases added after the refinement of the finest
    # level was chosen on the ones above. Two more small motions, another
    # scale along rotated axes, and three atlases resampled (nearest label)
    # onto their own grid.
    for name, ang, sh in (("mri1mm-small-motion3", (-0.4, 0.6, 0.3), (-0.5, 0.2, 0.6)),
                          ("mri1mm-small-motion4", (0.2, 0.8, -0.6), (0.8, -0.4, -0.3))):
        t = motion(c, ang, sh)
        inv = np.linalg.inv(t)
        write_case(root, name, {"kind": "affine", "dof": 6,
                   "what": "held-out: 1 mm T1 resampled onto its own grid through a motion of about 1 mm"},
                   ch2, resampled(ch2, ch2, inv, 3), aal, resampled(aal, aal, inv, 0), truth=t)
    t = motion(c, (-6, 5, 7), (4, -7, 5), (1.05, 0.96, 1.02))
    inv = np.linalg.inv(t)
    write_case(root, "mri1mm-anisotropic2", {"kind": "affine", "dof": 9,
               "what": "held-out: 1 mm T1 resampled through another rotation, scale per axis and shift"},
               ch2, resampled(ch2, ch2, inv, 3), aal, resampled(aal, aal, inv, 0), truth=t)
    for name, atlas, ang, sh, sc in (
            ("atlas-areas-affine2", ba, (-5, 3, 6), (-3, 5, -4), (0.96, 1.04, 0.98)),
            ("atlas-aal-affine", aal, (4, -5, 3), (5, 2, -6), (1.04, 0.97, 1.03)),
            ("atlas-cortex-affine", ho, (-4, -3, 5), (-2, 6, 3), (0.97, 1.03, 1.05))):
        t = motion(c, ang, sh, sc)
        write_case(root, name, {"kind": "affine", "dof": 12,
                   "what": "held-out: label atlas resampled (nearest label) onto its own grid through a rotation, a scale per axis and a shift"},
                   atlas, resampled(atlas, atlas, np.linalg.inv(t), 0), truth=t)

    # 2-D: an axial slice of the 1 mm and of the 0.5 mm scan (resampled to
    # 0.8 mm pixels), each moved in plane.
    for name, src, pix, ang, shift, scale, what in (
            ("slice1mm-shift", ch2, 1.0, 0, (4.3, -3.1), 1.0, "axial 1 mm slice, shifted"),
            ("slice1mm-rigid", ch2, 1.0, 9, (-3.2, 5.4), 1.0, "axial 1 mm slice, rotated 9 degrees and shifted"),
            ("slice08mm-similarity", better, 0.8, -7, (3.5, 2.5), 1.05,
             "axial slice at 0.8 mm pixels, rotated, shifted and scaled by 5 %")):
        write_slice_case(root, name, what, src, pix, float(c[2]), c, ang, shift, scale)

    # Held out: eight slices with random in-plane motions (seeded), added
    # after the planar defaults were chosen on the three slices above.
    rng = np.random.default_rng(11)
    for n in range(8):
        src, pix = (ch2, 1.0) if n % 2 == 0 else (better, 0.8)
        ang = float(rng.uniform(-10, 10)) if n % 4 >= 2 else 0.0
        shift = rng.uniform(-5, 5, 2)
        scale = 1.0 if n < 4 else float(rng.uniform(0.95, 1.05))
        z = float(c[2]) + float(rng.uniform(-20, 20))
        what = "held-out slice at %g mm pixels: %.2f degrees, shift (%.2f, %.2f) mm, scale %.3f" % (
            pix, ang, shift[0], shift[1], scale)
        write_slice_case(root, "slice-heldout%d" % n, what, src, pix, z, c, ang, shift, scale)
    # Held out, second set: ten more, added after the refinement of the
    # finest level (which slices do not use) and a look at their bins.
    rng = np.random.default_rng(29)
    for n in range(10):
        src, pix = (ch2, 1.0) if n % 2 == 0 else (better, 0.8)
        ang = float(rng.uniform(-10, 10)) if n % 3 else 0.0
        shift = rng.uniform(-5, 5, 2)
        scale = 1.0 if n % 4 < 2 else float(rng.uniform(0.95, 1.05))
        z = float(c[2]) + float(rng.uniform(-25, 25))
        what = "held-out slice at %g mm pixels: %.2f degrees, shift (%.2f, %.2f) mm, scale %.3f" % (
            pix, ang, shift[0], shift[1], scale)
        write_slice_case(root, "slice-heldout%d" % (8 + n), what, src, pix, z, c, ang, shift, scale)


def write_slice_case(root, name, what, src, pix, z, c, ang, shift, scale):
    """An axial slice of src at height z (pix mm pixels, centred on c) as the
    reference, and the slice moved in plane about c (rotation ang degrees,
    scale, shift in mm) as the model."""
    nx, ny = int(180 / pix), int(216 / pix)
    aff = np.eye(4)
    aff[0, 0] = aff[1, 1] = pix
    aff[:3, 3] = (c[0] - pix * (nx - 1) / 2, c[1] - pix * (ny - 1) / 2, z)
    grid = Image(np.zeros((nx, ny, 1), src.data.dtype), aff)
    ref2 = resampled(src, grid, np.eye(4), 3)
    t = np.eye(4)
    r = rotation(0, 0, ang)[:2, :2] * scale
    t[:2, :2] = r
    t[:2, 3] = c[:2] - r @ c[:2] + np.asarray(shift)
    model2 = resampled(ref2, ref2, np.linalg.inv(t), 3)
    write_case(root, name, {"kind": "affine", "dof": 7 if scale != 1 else 6, "what": what},
               ref2, model2, truth=t, two_d=True)


def make_elastic(root):
    ch2 = template("ch2.nii.gz")
    aal = template("aal.nii.gz", labels=True)
    c = ch2.world_points()[0].mean(axis=1)
    u = smooth_warp(ch2, 5.0, seed=7)
    pts, _ = ch2.world_points()
    warp_to = pts + u
    ref = resampled(ch2, ch2, lambda p: warp_to, 3)
    ref_labels = resampled(aal, aal, lambda p: warp_to, 0)
    write_case(root, "mri1mm-warp5", {"kind": "elastic",
               "what": "1 mm T1 and atlas warped by a smooth field of up to 5 mm"},
               ref, ch2, ref_labels, aal, disp=u)

    # The chain: the same warp, and the model's header moved by a rigid
    # motion and a 5 % scale. Truth: x -> m(x + u(x)).
    m = motion(c, (5, -6, 4), (6, -4, 5), (1.05,) * 3)
    d = apply(m, warp_to) - pts
    write_case(root, "mri1mm-warp5-moved", {"kind": "elastic",
               "what": "as mri1mm-warp5, the model's header moved by a rigid motion and a 5 % scale"},
               ref, moved_header(ch2, m), ref_labels, moved_header(aal, m), disp=d)

    # The 0.5 mm scan (301 x 370 x 316) under a smooth warp of up to 5 mm,
    # with the atlas carried onto its grid by nearest neighbours.
    better = template("ch2better.nii.gz")
    aal05 = resampled(aal, better, lambda p: p, 0)
    u = smooth_warp(better, 5.0, seed=11)
    pts, _ = better.world_points()
    warp_to = pts + u
    write_case(root, "mri05-warp5", {"kind": "elastic",
               "what": "0.5 mm T1 and atlas warped by a smooth field of up to 5 mm"},
               resampled(better, better, lambda p: warp_to, 3), better,
               resampled(aal05, aal05, lambda p: warp_to, 0), aal05, disp=u)
    # Held out: another warp of the same scan, made after the finest level's
    # stride for such scans was chosen on the one above.
    u = smooth_warp(better, 5.0, seed=13)
    warp_to = pts + u
    write_case(root, "mri05-warp5b", {"kind": "elastic",
               "what": "0.5 mm T1 and atlas warped by another smooth field of up to 5 mm"},
               resampled(better, better, lambda p: warp_to, 3), better,
               resampled(aal05, aal05, lambda p: warp_to, 0), aal05, disp=u)


# ---------------------------------------------------------------- scoring
def dice(ref_labels, model_labels, mapping):
    """Mean Dice over the reference's labels of the model's labels carried
    onto the reference grid by mapping (reference point -> model point)."""
    pts, _ = ref_labels.world_points()
    carried = model_labels.sample(mapping(pts), 0).astype(np.int64)
    r = ref_labels.data.ravel().astype(np.int64)
    labels = np.unique(r[r > 0])
    n = int(max(r.max(), carried.max())) + 1
    inter = np.bincount(r[(r == carried) & (r > 0)], minlength=n)
    size_r = np.bincount(r, minlength=n)
    size_c = np.bincount(carried, minlength=n)
    return float(np.mean([2.0 * inter[l] / (size_r[l] + size_c[l]) for l in labels]))


def score(case, mapping):
    info = json.load(open(os.path.join(case, "case.json")))
    ref = Image.load(os.path.join(case, "reference.nii.gz"), info["label_images"])
    model = Image.load(os.path.join(case, "model.nii.gz"), info["label_images"])
    out = {"case": info["name"]}
    if info["kind"] == "affine":
        truth = np.loadtxt(os.path.join(case, "truth.txt"))
        # Over the model's foreground: q = truth(p); error |result(p) - q|.
        q, _ = model.foreground(step=2)
        p = apply(np.linalg.inv(truth), q)
        out["error_mm"] = float(np.linalg.norm(mapping(p) - q, axis=0).mean())
    else:
        truth = field_map(os.path.join(case, "truth-disp.nii.gz"))
        p, _ = ref.foreground(step=1)
        out["error_mm"] = float(np.linalg.norm(mapping(p) - truth(p), axis=0).mean())
    if info["labels"]:
        rl = Image.load(os.path.join(case, "reference-labels.nii.gz"), True)
        ml = Image.load(os.path.join(case, "model-labels.nii.gz"), True)
        out["dice"] = dice(rl, ml, mapping)
    elif info["label_images"]:
        out["dice"] = dice(ref, model, mapping)
    return out


def main(argv):
    if len(argv) < 2 or argv[1] in ("-h", "--help"):
        print(__doc__)
        return 0
    cmd = argv[1]
    if cmd == "make":
        root = argv[2]
        which = argv[argv.index("--set") + 1] if "--set" in argv else "all"
        os.makedirs(root, exist_ok=True)
        if which in ("affine", "all"):
            make_affine(root)
        if which in ("elastic", "all"):
            make_elastic(root)
        return 0
    if cmd == "list":
        for name in sorted(os.listdir(argv[2])):
            if os.path.exists(os.path.join(argv[2], name, "case.json")):
                print(name)
        return 0
    if cmd == "score":
        case = argv[2]
        opts = dict(zip(argv[3::2], argv[4::2]))
        if "--identity" in argv:
            mapping = lambda p: p
        elif "--tfm" in opts:
            m = read_tfm(opts["--tfm"])
            mapping = lambda p: apply(m, p)
        elif "--field" in opts:
            f = field_map(opts["--field"])
            if "--then-tfm" in opts:
                g = read_tfm(opts["--then-tfm"])
                mapping = lambda p: apply(g, f(p))
            else:
                mapping = f
        else:
            print("score needs --tfm, --field or --identity", file=sys.stderr)
            return 2
        print(json.dumps(score(case, mapping)))
        return 0
    print(f"unknown command {cmd}", file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
