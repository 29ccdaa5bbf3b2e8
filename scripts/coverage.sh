#!/usr/bin/env bash
# Runs the unit and scenario tests with the driver's lines and branches counted, prints the counts per file, and fails
# when the share of the driver that ran is below what is kept up.
#
# usage: scripts/coverage.sh            the table, then one line with the verdict
#        scripts/coverage.sh --missing  before them, each source line that did not run and each branch not taken
set -euo pipefail

least_lines=98
least_branches=95

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"
. scripts/prerequisites.sh
build coverage unit_tests scenario_tests

folder=build/coverage
rm -rf "$folder/profiles"
# One file per program, into which its processes merge.
# Random I/O gets everywhere within a fraction of its usual length.
LLVM_PROFILE_FILE="$top/$folder/profiles/%m.profraw" TARNVEIL_RANDOM_OPERATIONS=20000 \
    ctest --preset coverage -L '^(unit|scenario)$' --parallel "$(nproc)" --quiet --output-log "$folder/tests.log" ||
    { tail -50 "$folder/tests.log"; exit 1; }
llvm-profdata-19 merge -sparse -o "$folder/driver.profdata" "$folder"/profiles/*.profraw

sources=("$folder/unit_tests" -object "$folder/scenario_tests" -instr-profile "$folder/driver.profdata"
    -ignore-filename-regex '/(hosted|include|tests)/')
if [ "${1-}" = --missing ]
then
    llvm-cov-19 show "${sources[@]}" -show-branches=count driver |
        grep -E '^/|^ +[0-9]+\| +0\||\[(True: 0,|.*False: 0\])' || true
fi
llvm-cov-19 report "${sources[@]}" -show-region-summary=false driver | tee "$folder/report.txt"

awk -v least_lines="$least_lines" -v least_branches="$least_branches" '
    $1 == "TOTAL" {
        lines = $(NF - 3); branches = $NF
        ok = lines + 0 >= least_lines && branches + 0 >= least_branches
        printf "coverage of the driver: %s of its lines (at least %d%%), %s of its branches (at least %d%%): %s\n",
            lines, least_lines, branches, least_branches, ok ? "held" : "missed"
        found = 1
    }
    END { exit !(found && ok) }' "$folder/report.txt"
