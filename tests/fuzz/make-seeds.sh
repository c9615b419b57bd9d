#!/usr/bin/env bash
# make-seeds.sh CAPTURES_DIR SEEDS_DIR: one fuzzing seed per recorded body, the body behind the byte that
# picks its wire protocol (0 Responses, 1 Chat Completions, 2 Anthropic Messages, 3 Gemini).
set -euo pipefail
mkdir -p "$2"
for capture in "$1"/*.sse; do
  name=$(basename "$capture")
  case "$name" in
    responses*) byte='\x00' ;;
    openai-chat*) byte='\x01' ;;
    anthropic*) byte='\x02' ;;
    *) byte='\x03' ;;
  esac
  { printf "$byte"; cat "$capture"; } >"$2/$name"
done
