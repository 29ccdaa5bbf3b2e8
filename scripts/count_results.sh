# shellcheck shell=bash
# Sourced by ./test, which declares $passed and $failed.

# Adds what the last CTest run in a build folder found to $passed and $failed. Counted are the single tests, as the
# test programs' own result files tell them. A program that failed without naming a failed test (it crashed, ran out of
# time, leaked, or never started) counts as one failure more. usage: count_results BUILD_FOLDER
count_results()
{
    local folder=$1 name status suite_passed suite_failed
    if ! grep -q '<testcase ' "$folder/junit.xml" 2>/dev/null
    then
        echo "no test ran in $folder" >&2
        failed=$((failed + 1))
        return
    fi
    while IFS=$'\t' read -r name status
    do
        read -r suite_passed suite_failed < <(result_file_counts "$folder/results/${name//\//_}.xml")
        passed=$((passed + suite_passed))
        failed=$((failed + suite_failed))
        print_not_passed "$folder/results/${name//\//_}.xml"
        if [ "$status" != run ] && [ "$suite_failed" -eq 0 ]
        then
            echo "failed $name: it named no test"
            failed=$((failed + 1))
        fi
    done < <(sed -n -E 's/.*<testcase name="([^"]*)".* status="([^"]*)".*/\1\t\2/p' "$folder/junit.xml")
}

# Prints the numbers of passed and failed tests in one GoogleTest result file; skipped and disabled ones are neither.
result_file_counts()
{
    [ -f "$1" ] || { echo "0 0"; return; }
    awk '
        function attribute(name,    text)
        {
            if (!match($0, " " name "=\"[0-9]+\"")) return 0
            text = substr($0, RSTART, RLENGTH)
            gsub(/[^0-9]/, "", text)
            return text + 0
        }
        /<testsuite / {
            failures = attribute("failures") + attribute("errors")
            failed += failures
            passed += attribute("tests") - failures - attribute("disabled") - attribute("skipped")
        }
        END { print passed + 0, failed + 0 }' "$1"
}

# Names each skipped and each failed test of one GoogleTest result file with what it said about that.
print_not_passed()
{
    [ -f "$1" ] || return 0
    sed -n -E '/<testcase /{
            s/.* name="([^"]*)".* classname="([^"]*)".*/\2.\1/
            h
        }
        /<(skipped|failure) message="/{
            s/.*<skipped message="([^"]*)".*/skipped \1/
            s/.*<failure message="([^"]*)".*/failed \1/
            s/^(skipped|failed) [^&]*&#x0A;/\1 /
            s/&#x0A;/ /g
            s/&apos;/'"'"'/g; s/&quot;/"/g; s/&lt;/</g; s/&gt;/>/g; s/&amp;/\&/g
            s/ *$//
            G
            s/^(skipped|failed) (.*)\n(.*)/\1 \3: \2/
            p
        }' "$1"
}
