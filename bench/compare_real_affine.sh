#!/usr/bin/env bash
# Compares `zrreg affine` with elastix 5 on the affine cases of realdata.py:
# real brain MRI and a label atlas with known motions, 3-D and 2-D. Every case
# runs zrreg (its defaults, and each --variant) and elastix back to back, each
# --repeat times; the table gives the median wall time, the median CPU time
# (user + system), the peak memory (/usr/bin/time -v), the mean error over the
# model's foreground of the written transform file against the truth, and the
# mean Dice where the case has labels. The machine load is printed before and
# after: on a busy machine compare CPU times as well as wall times. Both tools
# write only the transform (elastix no result image, zrreg no -o), so the
# times compare the registrations and the reading of the inputs.
#
# elastix: an affine transform with 3 resolutions, Mattes mutual information
# (32 bins), adaptive stochastic gradient descent with 250 iterations and
# 4096 random samples a level, centres aligned first; 2-D cases run as 2-D.
#
# usage: bench/compare_real_affine.sh [--work DIR] [--threads N] [--repeat N]
#          [--cases "A B ..."] [--variant NAME='ZRREG ARGS']... [--no-default]
#          [--no-elastix] [--zrreg PATH]
# e.g.   bench/compare_real_affine.sh --repeat 3 --variant finest='--set options=off'
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=bench/elastix_params.sh
. "$here/bench/elastix_params.sh"
work=/tmp/zrreg-real-affine
threads=$(nproc)
zrreg="$here/build/zrreg"
repeat=1
cases=""
default=1
elastix=1
variants=()
while [ $# -gt 0 ]; do
  case "$1" in
  --work) work="$2"; shift 2 ;;
  --threads) threads="$2"; shift 2 ;;
  --repeat) repeat="$2"; shift 2 ;;
  --cases) cases="$2"; shift 2 ;;
  --variant) variants+=("$2"); shift 2 ;;
  --no-default) default=0; shift ;;
  --no-elastix) elastix=0; shift ;;
  --zrreg) zrreg="$2"; shift 2 ;;
  -h | --help) sed -n 2,18p "$0"; exit 0 ;;
  *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
py=/usr/bin/python3
[ -x "$zrreg" ] || bash "$here/scripts/build.sh"
data="$work/cases"
if [ ! -f "$data/slice08mm-similarity/case.json" ]; then
  echo "making the cases in $data" >&2
  "$py" "$here/bench/realdata.py" make "$data" --set affine >&2
fi
[ -n "$cases" ] || cases=$("$py" "$here/bench/realdata.py" list "$data")
runs="$work/runs"
mkdir -p "$runs"
results="$work/results.tsv"
: >"$results"

# Runs a command `repeat` times; prints "wall_s cpu_s peak_MB", the median of
# each over the runs.
timed() {
  local log="$1"; shift
  local times=() cpus=() peaks=()
  for ((n = 0; n < repeat; n++)); do
    /usr/bin/time -v -o "$log.time" "$@" >"$log" 2>&1 || { echo "FAILED: $*" >&2; tail -5 "$log" >&2; return 1; }
    times+=("$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0;
      for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$log.time")")
    cpus+=("$(awk -F': ' '/User time/ {u = $2} /System time/ {s = $2} END {print u + s}' "$log.time")")
    peaks+=("$(awk -F': ' '/Maximum resident set size/ {printf "%.0f", $2 / 1024}' "$log.time")")
  done
  local mid=$((repeat / 2))
  median() { printf '%s\n' "$@" | sort -g | sed -n "$((mid + 1))p"; }
  echo "$(median "${times[@]}")" "$(median "${cpus[@]}")" "$(median "${peaks[@]}")"
}

score() { # case tfm -> "error dice"
  "$py" "$here/bench/realdata.py" score "$data/$1" --tfm "$2" |
    "$py" -c "import json,sys; s=json.load(sys.stdin); print('%.4f' % s['error_mm'], '%.4f' % s['dice'] if 'dice' in s else '-')"
}

# elastix's TransformParameters file as an ITK transform file (reference
# point -> model point), which realdata.py scores.
elastix_tfm() {
  "$py" - "$1" "$2" <<'PY'
import re, sys
txt = open(sys.argv[1]).read()
par = [float(v) for v in re.search(r'\(TransformParameters ([^)]*)\)', txt).group(1).split()]
cen = [float(v) for v in re.search(r'\(CenterOfRotationPoint ([^)]*)\)', txt).group(1).split()]
d = len(cen)
with open(sys.argv[2], 'w') as f:
    f.write('#Insight Transform File V1.0\n#Transform 0\n')
    f.write('Transform: AffineTransform_double_%d_%d\n' % (d, d))
    f.write('Parameters: ' + ' '.join('%.17g' % v for v in par) + '\n')
    f.write('FixedParameters: ' + ' '.join('%.17g' % v for v in cen) + '\n')
PY
}


echo "load before: $(cat /proc/loadavg)  threads: $threads  repeat: $repeat" >&2
for c in $cases; do
  ref="$data/$c/reference.nii.gz"
  mod="$data/$c/model.nii.gz"
  dim=$("$py" -c "import json,sys;print(2 if json.load(open(sys.argv[1]))['two_d'] else 3)" "$data/$c/case.json")
  out="$runs/$c"
  mkdir -p "$out"
  all=()
  [ "$default" = 1 ] && all+=("zrreg=")
  for v in "${variants[@]}"; do all+=("zrreg-$v"); done
  for v in "${all[@]}"; do
    name="${v%%=*}"
    args="${v#*=}"
    # shellcheck disable=SC2086
    tm=$(timed "$out/$name.log" "$zrreg" affine --quiet --threads "$threads" --reference "$ref" \
      --model "$mod" --itk-transform "$out/$name.tfm" $args) || continue
    printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$c" "$name" $tm "$(score "$c" "$out/$name.tfm")" >>"$results"
  done
  if [ "$elastix" = 1 ]; then
    mkdir -p "$out/elastix"
    elastix_affine_params "$out/elastix/params.txt" "$dim"
    tm=$(timed "$out/elastix.log" elastix -f "$ref" -m "$mod" -p "$out/elastix/params.txt" \
      -out "$out/elastix" -threads "$threads") || continue
    elastix_tfm "$out/elastix/TransformParameters.0.txt" "$out/elastix.tfm"
    printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$c" elastix $tm "$(score "$c" "$out/elastix.tfm")" >>"$results"
  fi
done
echo "load after: $(cat /proc/loadavg)" >&2

"$py" - "$results" <<'PY'
import sys
rows = [l.rstrip('\n').split('\t') for l in open(sys.argv[1]) if l.strip()]
print('| case | tool | wall s | CPU s | peak MB | error mm | Dice |')
print('|---|---|---:|---:|---:|---:|---:|')
for case, tool, t, cpu, mb, err_dice in rows:
    err, dice = err_dice.split()
    dice = dice if dice == '-' else f'{float(dice):.4f}'
    print(f'| {case} | {tool} | {float(t):.2f} | {float(cpu):.2f} | {mb} | {float(err):.4f} | {dice} |')
PY
