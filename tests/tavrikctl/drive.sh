# shellcheck shell=bash disable=SC2034,SC2154
# Everything that happens on the drive, in its order, each once; sourced by tavrikctl.sh in a module that plays it.
drive=$(<"${0%/*}/drive.jsonl")
monitor --json monitor --count $(($(wc -l <<<"$drive") + 1))
sim advance '{"ms": 11000}' >/dev/null
line '+CREG: 0' # what would come twice would come before
ended 0 "$drive"$'\n{"event":"registration","domain":"CS","state":"not registered"}\n'
