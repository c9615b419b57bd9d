#!/usr/bin/env bash
# make-seeds.sh SOURCE_DIR SEEDS_DIR: one folder of seeds per fuzz target, from the test data and the
# hand-written seeds in tests/fuzz/seeds.
set -euo pipefail
source_dir=$1
out=$2
captures=$source_dir/tests/data/wire-captures
written=$source_dir/tests/fuzz/seeds
rm -rf "$out"
mkdir -p "$out"/{stream_reader,markdown,bridge_request,native_frames,release_manifest,chrome_profile,firefox_profile,settings}

# Stream reader: each recorded body behind the byte that picks its protocol (0 Responses, 1 Chat
# Completions, 2 Anthropic Messages, 3 Gemini).
for capture in "$captures"/*.sse; do
  name=$(basename "$capture")
  case "$name" in
    responses*) byte='\x00' ;;
    openai-chat*) byte='\x01' ;;
    anthropic*) byte='\x02' ;;
    *) byte='\x03' ;;
  esac
  { printf "$byte"; cat "$capture"; } >"$out/stream_reader/$name"
done

# Markdown: the answers the recorded bodies carry, the hand-written documents and the chat pages the
# extension is tested against. The first two bytes pick the part of the document the target repeats.
n=0
while IFS= read -r -d '' text; do
  n=$((n + 1))
  { printf '\x10\x20'; printf '%s' "$text"; } >"$out/markdown/answer-$n.md"
done < <(jq -j '.[] | select(.text != "") | .text + "\u0000"' "$captures/rule-texts.json")
for file in "$written"/markdown/* "$source_dir"/tests/e2e/standins/pages/*.html; do
  { printf '\x10\x20'; cat "$file"; } >"$out/markdown/$(basename "$file")"
done

for name in bridge_request release_manifest chrome_profile firefox_profile settings; do
  cp "$written/$name"/* "$out/$name/"
done

# Native-messaging frames: the messages the extension sends, each as Chrome frames it (a 32-bit length in
# native byte order, then the JSON), one frame per line of a seed file.
for file in "$written"/native_frames/*; do
  python3 -c '
import struct, sys
lines = [l.rstrip("\n").encode() for l in open(sys.argv[1], encoding="utf-8") if l.strip()]
sys.stdout.buffer.write(b"".join(struct.pack("=I", len(l)) + l for l in lines))
' "$file" >"$out/native_frames/$(basename "$file")"
done
