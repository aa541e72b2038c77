#!/usr/bin/env bash
# Checks or applies the C++ style of .clang-format on the project's own sources: every C and C++
# file git knows or would add, which leaves out build folders and the fuzz seed corpora.
#   bash scripts/format.sh --check   list the files whose formatting differs; exit 1 if any
#   bash scripts/format.sh --fix     rewrite those files in place
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-}
case "$mode" in
  --check|--fix) ;;
  *) echo "usage: bash scripts/format.sh --check | --fix" >&2; exit 2 ;;
esac
if ! command -v clang-format >/dev/null; then
  echo "format: clang-format is not installed (apt-get install clang-format, or bash scripts/setup.sh --no-build)" >&2
  exit 2
fi

files=()
while IFS= read -r file; do
  [ -f "$file" ] && files+=("$file")  # a file deleted but not yet committed is no longer ours
done < <(git ls-files --cached --others --exclude-standard -- \
           '*.c' '*.h' '*.cpp' '*.hpp' ':!:fuzz/corpus/**' | sort -u)
if [ ${#files[@]} -eq 0 ]; then
  echo "format: no source files found (run it inside the git checkout)" >&2
  exit 2
fi

if [ "$mode" = "--fix" ]; then
  printf '%s\0' "${files[@]}" | xargs -0 -n 20 -P "$(nproc)" clang-format -i --style=file
  exit 0
fi

differing=()
for file in "${files[@]}"; do
  if ! clang-format --style=file "$file" | cmp -s - "$file"; then
    differing+=("$file")
  fi
done
if [ ${#differing[@]} -gt 0 ]; then
  printf '%s\n' "${differing[@]}"
  echo "format: ${#differing[@]} of ${#files[@]} files differ from .clang-format; bash scripts/format.sh --fix rewrites them" >&2
  exit 1
fi
echo "format: ${#files[@]} files as .clang-format wants them"
