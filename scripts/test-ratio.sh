#!/usr/bin/env bash
# Counts the lines of the tests against the lines of the code: git-tracked
# C, C++, Python and shell files, blank lines and lines that start with //,
# #, * or /* left out. Code is everything outside tests/, fuzz/ and bench/.
#   scripts/test-ratio.sh
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  git ls-files -z -- "$@" | grep -zE '\.(c|cc|cpp|cxx|h|hh|hpp|py|sh)$' | xargs -0 -r cat |
    grep -Ev '^[[:space:]]*$|^[[:space:]]*(//|#|\*|/\*)' | wc -l
}
tests=$(count tests)
code=$(count . ':!tests' ':!fuzz' ':!bench')
echo "tests/: $tests lines; code outside tests/, fuzz/, bench/: $code lines; tests are $((100 * tests / code)) % of the code"
