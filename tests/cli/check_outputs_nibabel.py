#!/usr/bin/env python3
"""zrreg's outputs read by nibabel: inputs in orientations other than ITK's
(R,A,S, permuted, 2-D) keep their voxel order, dimension and header geometry.

usage: check_outputs_nibabel.py ZRREG"""
import os
import subprocess
import sys
import tempfile

import nibabel as nib
import numpy as np

ZRREG = sys.argv[1]
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)
        print("FAIL:", what)


def zrreg(*args):
    r = subprocess.run([ZRREG] + [str(a) for a in args], capture_output=True, text=True)
    if r.returncode != 0:
        sys.exit("zrreg %s failed (%d):\n%s%s" % (args[0], r.returncode, r.stdout, r.stderr))
    # Quiet means nothing but errors.
    check("--quiet" not in args or r.stdout + r.stderr == "",
          "zrreg %s --quiet printed:\n%s%s" % (args[0], r.stdout, r.stderr))


def blob(shape, centre, radii):
    """A textured ellipsoid on a voxel grid."""
    idx = np.indices(shape).astype(np.float64)
    r2 = sum(((idx[a] - centre[a]) / radii[a]) ** 2 for a in range(len(shape)))
    texture = 40 * np.sin(idx[0] / 2.3) * np.cos(idx[1] / 3.1)
    return np.where(r2 < 1, 120 + texture, 10).astype(np.float32)


def load(path):
    img = nib.load(path)
    return img, np.asarray(img.dataobj)


def same_grid(out, ref, what):
    check(out.shape[:3] == ref.shape[:3], "%s: shape %s, reference %s" % (what, out.shape, ref.shape))
    check(np.allclose(out.affine, ref.affine, atol=1e-4), "%s: affine\n%s\nreference\n%s" %
          (what, out.affine, ref.affine))


with tempfile.TemporaryDirectory() as d:
    p = lambda name: os.path.join(d, name)

    # 3-D: the reference stored R,A,S; the model stored A,S,R (axes permuted)
    # and placed 3 mm off; its labels carry NIfTI's label intent.
    ras = np.diag([1.5, 1.5, 1.5, 1.0])
    ras[:3, 3] = [-24, -27, -15]
    ref = blob((32, 36, 20), (15, 18, 9), (11, 13, 7))
    nib.save(nib.Nifti1Image(ref, ras), p("ref.nii.gz"))
    model_ras = blob((32, 36, 20), (16, 17, 10), (11, 13, 7))
    asr = np.transpose(model_ras, (1, 2, 0))  # voxel axes A, S, R
    asr_affine = ras[:, [1, 2, 0, 3]].copy()
    asr_affine[:3, 3] += [3, 0, 0]
    nib.save(nib.Nifti1Image(asr, asr_affine), p("model.nii.gz"))
    labels = (asr > 100).astype(np.int16) + (asr > 140).astype(np.int16)
    lab_img = nib.Nifti1Image(labels, asr_affine)
    lab_img.header.set_intent("label")
    nib.save(lab_img, p("labels.nii.gz"))

    zrreg("affine", "--quiet", "--reference", p("ref.nii.gz"), "--model", p("model.nii.gz"),
          "--align", "centers", "--no-register", "-o", p("placed.nii.gz"),
          "--resampled", p("resampled.nii.gz"), "--itk-transform", p("t.tfm"))
    model_img, model_data = load(p("model.nii.gz"))
    ref_img, _ = load(p("ref.nii.gz"))
    placed, placed_data = load(p("placed.nii.gz"))
    check(placed.shape == model_img.shape, "affine -o: shape %s" % (placed.shape,))
    check(nib.aff2axcodes(placed.affine) == ("A", "S", "R"),
          "affine -o: axes %s" % (nib.aff2axcodes(placed.affine),))
    check(np.array_equal(placed_data, model_data), "affine -o: the model's voxels changed")
    resampled, _ = load(p("resampled.nii.gz"))
    same_grid(resampled, ref_img, "affine --resampled")

    # apply: the labels by the same transform, on the reference and by header.
    zrreg("apply", "--quiet", "--image", p("labels.nii.gz"), "-t", p("t.tfm"),
          "--reference", p("ref.nii.gz"), "-o", p("labels-on-ref.nii.gz"))
    on_ref, on_ref_data = load(p("labels-on-ref.nii.gz"))
    same_grid(on_ref, ref_img, "apply")
    check(on_ref_data.dtype == np.int16, "apply: voxel type %s" % on_ref_data.dtype)
    check(set(np.unique(on_ref_data)) <= {0, 1, 2}, "apply: labels were interpolated")
    zrreg("apply", "--quiet", "--image", p("labels.nii.gz"), "-t", p("t.tfm"), "--image-grid",
          "-o", p("labels-placed.nii.gz"))
    lp, lp_data = load(p("labels-placed.nii.gz"))
    check(np.array_equal(lp_data, labels), "apply --image-grid: the voxels changed")
    check(np.allclose(lp.affine, placed.affine, atol=1e-4), "apply --image-grid: header differs "
          "from affine -o\n%s\n%s" % (lp.affine, placed.affine))

    # 2-D: a slice pair stored R,A; every output of elastic stays 2-D.
    ra = np.diag([2.0, 2.0, 1.0, 1.0])
    ra[:2, 3] = [-40, -30]
    ref2 = blob((40, 32), (20, 15), (14, 11))
    ii, jj = np.indices(ref2.shape)
    mov2 = blob((40, 32), (20, 15), (14, 11))
    mov2 = mov2[np.clip(ii + np.round(1.2 * np.sin(jj / 5.0)).astype(int), 0, 39), jj]
    nib.save(nib.Nifti1Image(ref2, ra), p("ref2.nii.gz"))
    nib.save(nib.Nifti1Image(mov2.astype(np.float32), ra), p("mov2.nii.gz"))
    zrreg("elastic", "--quiet", "--reference", p("ref2.nii.gz"), "--model", p("mov2.nii.gz"),
          "-o", p("warped2.nii.gz"), "--displacement", p("disp2.nii.gz"),
          "--jacobian", p("jac2.nii.gz"), "--control-grid", p("grid2.nii.gz"))
    ref2_img, _ = load(p("ref2.nii.gz"))
    for name in ("warped2", "jac2"):
        img, _ = load(p(name + ".nii.gz"))
        check(img.ndim == 2, "elastic %s: %d dimensions" % (name, img.ndim))
        same_grid(img, ref2_img, "elastic " + name)
    disp, disp_data = load(p("disp2.nii.gz"))
    check(disp.shape == (40, 32, 1, 1, 2), "elastic --displacement: shape %s" % (disp.shape,))
    grid, _ = load(p("grid2.nii.gz"))
    check(grid.ndim == 5 and grid.shape[2:] == (1, 1, 2),
          "elastic --control-grid: shape %s" % (grid.shape,))
    # The displacement applied again gives what elastic wrote, voxel for
    # voxel; the grid, whose control points the file holds in single
    # precision, up to a small fraction of a grey level.
    _, warped_data = load(p("warped2.nii.gz"))
    for kind in ("--displacement", "--control-grid"):
        field = p("disp2.nii.gz" if kind == "--displacement" else "grid2.nii.gz")
        zrreg("apply", "--quiet", "--image", p("mov2.nii.gz"), kind, field, "--reference",
              p("ref2.nii.gz"), "--interpolation", "lanczos", "-o", p("applied2.nii.gz"))
        applied, applied_data = load(p("applied2.nii.gz"))
        check(applied.ndim == 2, "apply 2-D %s: %d dimensions" % (kind, applied.ndim))
        diff = np.abs(applied_data.astype(np.float64) - warped_data).max()
        check(diff <= (0 if kind == "--displacement" else 0.01),
              "apply 2-D %s: differs from elastic -o by up to %g" % (kind, diff))

    # The same pair with an oblique header (both turned by 20 degrees in
    # their plane) registers to the same voxels: the deformation lives in
    # the reference's frame, whatever its orientation in the world.
    turn = np.eye(4)
    c, s_ = np.cos(np.radians(20)), np.sin(np.radians(20))
    turn[:2, :2] = [[c, -s_], [s_, c]]
    nib.save(nib.Nifti1Image(ref2, turn @ ra), p("ref2o.nii.gz"))
    nib.save(nib.Nifti1Image(mov2.astype(np.float32), turn @ ra), p("mov2o.nii.gz"))
    zrreg("elastic", "--quiet", "--reference", p("ref2o.nii.gz"), "--model", p("mov2o.nii.gz"),
          "-o", p("warped2o.nii.gz"))
    oblique, oblique_data = load(p("warped2o.nii.gz"))
    same_grid(oblique, nib.load(p("ref2o.nii.gz")), "elastic, oblique")
    check(np.array_equal(oblique_data, warped_data),
          "elastic, oblique: differs from the upright run in %d voxels"
          % np.sum(oblique_data != warped_data))

if failures:
    sys.exit("%d check(s) failed" % len(failures))
print("all outputs as expected")
