#!/usr/bin/env bash
# Compares `zrreg affine` with elastix on a pair whose answer is known: the
# synthetic head and a copy under a rigid plus isotropic-scale transform.
# zrreg searches a similarity transform (rotation, translation, one scale);
# Debian's elastix has no similarity component, so it searches a full affine
# transform. Both use a mutual-information metric over a multi-resolution
# pyramid. Prints
# the wall time and the mean error (mm and voxels) over points of the head.
#
# usage: bench/compare_affine.sh [--size N] [--threads N] [--work DIR]
# Runs as root on Debian: installs elastix and python3 if they are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/elastix_params.sh
. "$here/bench/elastix_params.sh"
size=128
threads=$(nproc)
work=/tmp/zrreg-compare
while [ $# -gt 0 ]; do
  case "$1" in
  --size) size="$2"; shift 2 ;;
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
zrreg="$here/build/zrreg"

rm -rf "$work" && mkdir -p "$work/elastix"
"$zrreg" phantom --out "$work" --size "$size" >/dev/null

# zrreg: normalised mutual information, rigid plus isotropic scale.
t0=$(date +%s.%N)
"$zrreg" affine --quiet --threads "$threads" --reference "$work/reference.nii.gz" \
  --model "$work/model.nii.gz" --set "transform=Rigid=on,Iso-=on" \
  -o "$work/zrreg-registered.nii.gz" --matrix "$work/zrreg-matrix.txt" >/dev/null
t1=$(date +%s.%N)

elastix_affine_params "$work/elastix/params.txt"
t2=$(date +%s.%N)
elastix -f "$work/reference.nii.gz" -m "$work/model.nii.gz" -p "$work/elastix/params.txt" \
  -out "$work/elastix" -threads "$threads" >/dev/null
t3=$(date +%s.%N)

python3 - "$work" "$size" "$t0" "$t1" "$t2" "$t3" <<'PY'
import math, re, sys
work, size = sys.argv[1], int(sys.argv[2])
t0, t1, t2, t3 = map(float, sys.argv[3:7])
voxel = 220.0 / (size - 1)

def read4(path):
    rows = [list(map(float, l.split())) for l in open(path) if l.strip() and not l.startswith('#')]
    return rows

def apply(m, p):
    return [sum(m[r][c] * p[c] for c in range(3)) + m[r][3] for r in range(3)]

known = read4(work + '/known.txt')
found = read4(work + '/zrreg-matrix.txt')

txt = open(work + '/elastix/TransformParameters.0.txt').read()
par = list(map(float, re.search(r'\(TransformParameters ([^)]*)\)', txt).group(1).split()))
cen = list(map(float, re.search(r'\(CenterOfRotationPoint ([^)]*)\)', txt).group(1).split()))
A = [par[0:3], par[3:6], par[6:9]]
t = par[9:12]

def elastix_map(q):  # reference point -> model point: A (q - c) + t + c
    d = [q[i] - cen[i] for i in range(3)]
    return [sum(A[r][c] * d[c] for c in range(3)) + cen[r] + t[r] for r in range(3)]

# Points of the head: a grid inside its outer ellipsoid (semi-axes in mm).
pts = []
for i in range(-60, 61, 6):
    for j in range(-84, 85, 6):
        for k in range(-84, 85, 6):
            if (i / 69.0) ** 2 + (j / 92.0) ** 2 + (k / 90.0) ** 2 <= 1:
                pts.append((i, j, k))
ez = ee = 0.0
for p in pts:
    kp = apply(known, p)          # where model point p belongs in the reference
    fp = apply(found, p)          # where zrreg put it
    ez += math.dist(kp, fp)
    ee += math.dist(elastix_map(kp), p)  # elastix: reference point back to model
ez /= len(pts); ee /= len(pts)
print(f"pair: {size}^3 phantom, voxel {voxel:.3f} mm, {len(pts)} head points")
print(f"zrreg   : {t1 - t0:7.2f} s   mean error {ez:.3f} mm = {ez / voxel:.3f} voxels")
print(f"elastix : {t3 - t2:7.2f} s   mean error {ee:.3f} mm = {ee / voxel:.3f} voxels")
PY
