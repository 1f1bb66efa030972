#!/usr/bin/env bash
# Compares `zrreg elastic` with elastix's B-spline registration on pairs made
# from real scans (bench/realdata.py, set "elastic"): a 1 mm brain MRI and its
# label atlas under a known smooth warp of up to 5 mm (mri1mm-warp5), and the
# same with the model's header moved by a rigid motion and a 5 % scale
# (mri1mm-warp5-moved), registered as a chain: an affine step, then the
# elastic one (zrreg: `zrreg affine`, then `zrreg elastic` on its output;
# elastix: an affine and a B-spline parameter file in one run). Both tools
# run back to back on the same pairs with the same thread count; reported per
# tool and case: mean displacement error against the known field over the
# reference's foreground (mm), mean label Dice, wall time and peak memory
# (/usr/bin/time -v; for elastix the registration and transformix's
# deformation field, as zrreg's time includes writing its warped image and
# displacement field), and the machine's load before each run.
#
# usage: bench/compare_real_elastic.sh [--data DIR] [--work DIR] [--threads N]
#          [--cases "mri1mm-warp5 mri1mm-warp5-moved"] [--only zrreg|elastix]
#          [-- ARGS for zrreg elastic...]
# The cases are made in DIR (default /tmp/zrreg-realdata) when missing;
# ZRREG=PATH runs another zrreg binary.
# elastix: final grid spacing 16 mm, 3 resolutions, Mattes mutual information,
# adaptive stochastic gradient descent (500 iterations, 4096 random samples).
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/elastix_params.sh
. "$here/bench/elastix_params.sh"
data=/tmp/zrreg-realdata
work=/tmp/zrreg-compare-real-elastic
threads=$(nproc)
cases="mri1mm-warp5 mri1mm-warp5-moved"
only=""
zargs=()
while [ $# -gt 0 ]; do
  case "$1" in
  --data) data="$2"; shift 2 ;;
  --work) work="$2"; shift 2 ;;
  --threads) threads="$2"; shift 2 ;;
  --cases) cases="$2"; shift 2 ;;
  --only) only="$2"; shift 2 ;;
  --) shift; zargs=("$@"); break ;;
  -h | --help) sed -n 2,22p "$0"; exit 0 ;;
  *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
py=/usr/bin/python3
for c in $cases; do
  if [ ! -f "$data/$c/case.json" ]; then
    "$py" "$here/bench/realdata.py" make "$data" --set elastic >/dev/null
    break
  fi
done
# ZRREG names another zrreg binary (with its libraries beside it).
zrreg="${ZRREG:-$here/build/zrreg}"
[ -x "$zrreg" ] || bash "$here/scripts/build.sh"
mkdir -p "$work"

# Runs a command under /usr/bin/time -v; appends "wall_s peak_mb" to $2.
timed() {
  local log="$1" acc="$2"
  shift 2
  /usr/bin/time -v "$@" >"$log" 2>&1 || { tail -20 "$log" >&2; return 1; }
  local wall peak
  wall=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$log" |
    awk -F: '{ s = 0; for (i = 1; i <= NF; i++) s = s * 60 + $i; print s }')
  peak=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$log")
  cpu=$(sed -n 's/.*\(User\|System\) time (seconds): //p' "$log" | awk '{ s += $1 } END { print s }')
  echo "$wall $((peak / 1024)) $cpu" >>"$acc"
}

# Sums the wall times and takes the largest peak of the lines of $1.
totals() { awk '{ w += $1; c += $3; if ($2 > p) p = $2 } END { printf "%.1f %d %.1f", w, p, c }' "$1"; }

load() { cut -d' ' -f1-3 /proc/loadavg; }

elastix_params() {
  elastix_affine_params "$1/affine.txt"
  elastix_bspline_params "$1/bspline.txt" 16 nii.gz
}

results="$work/results.txt"
: >"$results"
printf 'machine: %s, %s cores; threads %s; zrreg elastic %s\n' "$(uname -n)" "$(nproc)" \
  "$threads" "${zargs[*]:-(defaults)}" | tee -a "$results"
for c in $cases; do
  d="$data/$c"
  ref="$d/reference.nii.gz"
  mov="$d/model.nii.gz"
  chain=0
  case "$c" in *moved*) chain=1 ;; esac
  out="$work/$c"
  rm -rf "$out" && mkdir -p "$out/zrreg" "$out/elastix"
  unreg=$("$py" "$here/bench/realdata.py" score "$d" --identity)
  echo "$c unregistered $unreg" | tee -a "$results"

  if [ "$only" != elastix ]; then
    acc="$out/zrreg/times"
    before=$(load)
    field=(--field "$out/zrreg/disp.nii.gz")
    if [ $chain = 1 ]; then
      timed "$out/zrreg/affine.log" "$acc" "$zrreg" affine --quiet --threads "$threads" \
        --reference "$ref" --model "$mov" --set "transform=Rigid=on,Iso-=on" \
        -o "$out/zrreg/affine.nii.gz" --itk-transform "$out/zrreg/affine.tfm"
      mov="$out/zrreg/affine.nii.gz"
      field+=(--then-tfm "$out/zrreg/affine.tfm")
    fi
    timed "$out/zrreg/elastic.log" "$acc" "$zrreg" elastic --quiet --threads "$threads" \
      --reference "$ref" --model "$mov" -o "$out/zrreg/warped.nii.gz" \
      --displacement "$out/zrreg/disp.nii.gz" "${zargs[@]}"
    s=$("$py" "$here/bench/realdata.py" score "$d" "${field[@]}")
    echo "$c zrreg $s $(totals "$acc") load $before" | tee -a "$results"
  fi

  if [ "$only" != zrreg ]; then
    e="$out/elastix"
    elastix_params "$e"
    acc="$e/times"
    before=$(load)
    ps=(-p "$e/bspline.txt")
    last=0
    if [ $chain = 1 ]; then
      ps=(-p "$e/affine.txt" -p "$e/bspline.txt")
      last=1
    fi
    timed "$e/elastix.log" "$acc" elastix -f "$ref" -m "$d/model.nii.gz" "${ps[@]}" -out "$e" \
      -threads "$threads"
    # transformix writes the field in the format the parameter file names
    # (MetaImage when none): ask for NIfTI, which the scorer reads.
    tp="$e/TransformParameters.$last.txt"
    grep -q ResultImageFormat "$tp" && sed -i 's/(ResultImageFormat "[^"]*")/(ResultImageFormat "nii.gz")/' "$tp" ||
      echo '(ResultImageFormat "nii.gz")' >>"$tp"
    # The field is an output of the run, as zrreg's --displacement is: its
    # time counts.
    timed "$e/transformix.time.log" "$acc" transformix -def all -tp "$tp" -out "$e"
    s=$("$py" "$here/bench/realdata.py" score "$d" --field "$e/deformationField.nii.gz")
    echo "$c elastix $s $(totals "$acc") load $before" | tee -a "$results"
  fi
done

"$py" - "$results" <<'PY'
import json, re, sys
rows = []
for line in open(sys.argv[1]):
    m = re.match(r'(\S+) (unregistered|zrreg|elastix) (\{.*\})(.*)', line)
    if not m:
        continue
    s = json.loads(m.group(3))
    rest = m.group(4).split()
    wall = peak = cpu = ld = "-"
    if rest:
        wall, peak, cpu = rest[0], rest[1], rest[2]
        ld = " ".join(rest[4:])
    rows.append((m.group(1), m.group(2), s["error_mm"], s.get("dice", float("nan")), wall, cpu,
                 peak, ld))
print()
print("| case | tool | error (mm) | Dice | wall (s) | CPU (s) | peak (MB) | load before |")
print("|---|---|---|---|---|---|---|---|")
for r in rows:
    print(f"| {r[0]} | {r[1]} | {r[2]:.3f} | {r[3]:.3f} | {r[4]} | {r[5]} | {r[6]} | {r[7]} |")
PY
