#!/usr/bin/env bash
# Compares `zrreg elastic` with elastix's B-spline registration on a pair with
# a known smooth deformation: the synthetic head and a copy warped by up to A
# mm. Prints for both the wall time, the mean displacement error against the
# known deformation (mm and voxels) inside the head, and the mean Dice of the
# model's label image warped by each result against the reference labels.
#
# usage: bench/compare_elastic.sh [--size N] [--warp A] [--threads N] [--work DIR]
# Runs as root on Debian: installs elastix and python3 if they are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/elastix_params.sh
. "$here/bench/elastix_params.sh"
size=64
warp=8
threads=$(nproc)
work=/tmp/zrreg-compare-elastic
while [ $# -gt 0 ]; do
  case "$1" in
  --size) size="$2"; shift 2 ;;
  --warp) warp="$2"; shift 2 ;;
  --threads) threads="$2"; shift 2 ;;
  --work) work="$2"; shift 2 ;;
  -h | --help) sed -n 2,10p "$0"; exit 0 ;;
  *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
need=()
command -v elastix >/dev/null || need+=(elastix)
command -v python3 >/dev/null || need+=(python3)
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
[ -x "$here/build/zrreg" ] || bash "$here/scripts/build.sh"
# ZRREG=PATH runs another zrreg (a wrapper may add options).
zrreg="${ZRREG:-$here/build/zrreg}"
rm -rf "$work" && mkdir -p "$work/elastix"
"$zrreg" phantom --out "$work" --size "$size" --warp "$warp" --ext .nii >/dev/null

# Control-point spacing of zrreg's default plan (4 points refined 3 times: 11
# per axis over the image), for elastix's final grid.
spacing=$(python3 -c "print(220.0 / 8)")

t0=$(date +%s.%N)
"$zrreg" elastic --quiet --threads "$threads" --reference "$work/reference.nii" \
  --model "$work/model.nii" -o "$work/zrreg-warped.nii" --displacement "$work/zrreg-disp.nii"
t1=$(date +%s.%N)

elastix_bspline_params "$work/elastix/params.txt" "$spacing" nii
t2=$(date +%s.%N)
elastix -f "$work/reference.nii" -m "$work/model.nii" -p "$work/elastix/params.txt" \
  -out "$work/elastix" -threads "$threads" >/dev/null
t3=$(date +%s.%N)
transformix -def all -tp "$work/elastix/TransformParameters.0.txt" -out "$work/elastix" >/dev/null

python3 - "$work" "$size" "$warp" "$t0" "$t1" "$t2" "$t3" <<'PY'
import math, struct, sys
work, n, amp = sys.argv[1], int(sys.argv[2]), float(sys.argv[3])
t0, t1, t2, t3 = map(float, sys.argv[4:8])
extent, h = 220.0, 110.0
voxel = extent / (n - 1)

def read_nii(path):
    b = open(path, 'rb').read()
    dim = struct.unpack_from('<8h', b, 40)
    dtype = struct.unpack_from('<h', b, 70)[0]
    off = int(struct.unpack_from('<f', b, 108)[0])
    count = 1
    for d in dim[1:dim[0] + 1]:
        count *= max(d, 1)
    fmt = {2: 'B', 4: 'h', 8: 'i', 16: 'f', 64: 'd', 512: 'H'}[dtype]
    return dim, struct.unpack_from('<%d%s' % (count, fmt), b, off)

def warp(p):
    k = math.pi / 110.0
    return (amp * math.sin(k * p[1] + 0.3) * math.cos(k * p[2]),
            amp * math.sin(k * p[2] - 0.2) * math.cos(k * p[0]),
            amp * math.sin(k * p[0] + 0.5) * math.cos(k * p[1]))

_, ref = read_nii(work + '/reference.nii')
_, rl = read_nii(work + '/reference-labels.nii')
_, ml = read_nii(work + '/model-labels.nii')

def evaluate(disp_path):
    dim, d = read_nii(disp_path)
    N = n * n * n
    err = 0.0; cnt = 0
    inter = {}; sizes = {}
    for idx in range(N):
        i, j, k = idx % n, (idx // n) % n, idx // (n * n)
        x = (-h + i * voxel, -h + j * voxel, -h + k * voxel)
        # ITK vector images in NIfTI: components are the slowest axis.
        q = (x[0] + d[idx], x[1] + d[N + idx], x[2] + d[2 * N + idx])
        if ref[idx] >= 10:
            u = warp(q)
            err += math.dist((q[0] + u[0], q[1] + u[1], q[2] + u[2]), x)
            cnt += 1
        qi = [int(round((q[c] + h) / voxel)) for c in range(3)]
        lm = ml[qi[0] + n * (qi[1] + n * qi[2])] if all(0 <= v < n for v in qi) else 0
        lr = rl[idx]
        for lab in (lm, lr):
            if lab:
                sizes[lab] = sizes.get(lab, 0) + 1
        if lm and lm == lr:
            inter[lm] = inter.get(lm, 0) + 1
    dice = [2.0 * inter.get(l, 0) / sizes[l] for l in sizes]
    return err / cnt, sum(dice) / len(dice)

def before():
    err = 0.0; cnt = 0
    for idx in range(0, n * n * n):
        if ref[idx] >= 10:
            i, j, k = idx % n, (idx // n) % n, idx // (n * n)
            err += math.hypot(*warp((-h + i * voxel, -h + j * voxel, -h + k * voxel)))
            cnt += 1
    return err / cnt

b = before()
ez, dz = evaluate(work + '/zrreg-disp.nii')
ee, de = evaluate(work + '/elastix/deformationField.nii')
print(f"pair: {n}^3 phantom warped by up to {amp} mm, voxel {voxel:.3f} mm; "
      f"error before {b:.3f} mm = {b / voxel:.3f} voxels")
print(f"zrreg   : {t1 - t0:7.2f} s   error {ez:.3f} mm = {ez / voxel:.3f} voxels   mean Dice {dz:.3f}")
print(f"elastix : {t3 - t2:7.2f} s   error {ee:.3f} mm = {ee / voxel:.3f} voxels   mean Dice {de:.3f}")
PY
