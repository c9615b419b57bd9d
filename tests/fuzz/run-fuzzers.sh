#!/usr/bin/env bash
# run-fuzzers.sh BUILD_DIR SECONDS [TARGET...]: runs each fuzz target (all by default) for SECONDS, one
# after the other on one core. Corpora grow in BUILD_DIR/tests/fuzz/corpus/<name>; a crash, leak or
# timeout leaves its input in BUILD_DIR/tests/fuzz/artifacts/<name>/ and makes the script fail, so it can
# be turned into a regression test. Prints runs and executions per target.
set -uo pipefail
build=$1
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
fuzz=$build/tests/fuzz
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(stream_reader markdown bridge_request native_frames release_manifest
                                     chrome_profile firefox_profile settings)
declare -A dictionary=([markdown]=markdown.dict [bridge_request]=bridge.dict [native_frames]=bridge.dict
                       [release_manifest]=release.dict [chrome_profile]=chrome-profile.dict
                       [firefox_profile]=firefox-profile.dict
                       [settings]=settings.dict)
failed=()
for name in "${targets[@]}"; do
  corpus=$fuzz/corpus/$name
  artifacts=$fuzz/artifacts/$name
  mkdir -p "$corpus" "$artifacts"
  # In-process (no -jobs): one core, output in the log below.
  options=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -max_len=16384
           -print_final_stats=1 -artifact_prefix="$artifacts/")
  [ -n "${dictionary[$name]:-}" ] && options+=(-dict="$here/${dictionary[$name]}")
  started=$SECONDS
  log=$fuzz/$name.log
  QT_QPA_PLATFORM=offscreen LSAN_OPTIONS=suppressions=$here/lsan.supp \
    "$fuzz/fuzz_$name" "${options[@]}" "$corpus" "$fuzz/seeds/$name" >"$log" 2>&1
  status=$?
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | head -1)
  echo "fuzz_$name: $((SECONDS - started)) s, ${runs:-?} executions, corpus $(ls "$corpus" | wc -l) inputs, exit $status"
  if [ $status -ne 0 ]; then
    failed+=("$name")
    grep -m3 -E 'ERROR|SUMMARY|fuzz_' "$log" | grep -v '^INFO' | sed 's/^/    /'
    ls "$artifacts" | sed "s|^|    $artifacts/|"
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found faults in: ${failed[*]} (inputs in $fuzz/artifacts; logs in $fuzz/*.log)" >&2
  exit 1
fi
