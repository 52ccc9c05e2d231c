# shellcheck shell=bash
# The suites of ./vorn test. Sourced by vorn.

passed=0 failed=0
logs=build/test-logs

# count SUITE PASSED FAILED: adds a suite's result and prints it.
count() {
    printf '%-7s %d passed, %d failed\n' "$1" "$2" "$3"
    passed=$((passed + $2)) failed=$((failed + $3))
}

lines_with() { cat "${@:2}" 2>/dev/null | grep -cE -- "$1" || true; }

test_lint() {
    local status=0
    cmd_lint ${filter:+-k "$filter"} > >(tee "$logs/lint.log") || status=1
    wait $!
    local bad
    bad=$(lines_with '^FAIL ' "$logs/lint.log")
    [ "$bad" -gt 0 ] || bad=$status
    count lint "$(lines_with '^OK ' "$logs/lint.log")" "$bad"
}

# A part of the tests in each of a few processes; a process that dies counts as one failed test.
test_unit() {
    rm -f "$logs"/unit-*.log
    build_preset host || { count unit 0 1; return; }
    local shard bad log pids=() broken=0 pattern='*'
    [ -z "$filter" ] || pattern="*$filter*"
    for ((shard = 0; shard < VORN_JOBS; shard++)); do
        GTEST_TOTAL_SHARDS=$VORN_JOBS GTEST_SHARD_INDEX=$shard \
            setpriv --pdeathsig TERM -- timeout --foreground 240 \
            build/host/vorn_unit --gtest_filter="$pattern" >"$logs/unit-$shard.log" 2>&1 &
        pids+=($!)
    done
    for shard in "${!pids[@]}"; do
        wait "${pids[$shard]}" && continue
        log=$logs/unit-$shard.log
        bad=$(lines_with '^\[  FAILED  \] .*\([0-9]+ ms\)$' "$log")
        [ "$bad" -gt 0 ] || bad=1
        broken=$((broken + bad))
        grep -vE '^\[(       OK |----------|==========)' "$log" || true
    done
    count unit "$(lines_with '^\[       OK \]' "$logs"/unit-*.log)" "$broken"
}

# outcome WORD LOG: the number before WORD in pytest's last line.
outcome() {
    local number
    number=$(tail -n 1 "$2" | grep -oE "[0-9]+ $1" | head -n 1 | cut -d' ' -f1) || true
    echo "${number:-0}"
}

test_system() {
    { build_preset kernel && build_preset tools; } || { count system 0 1; return; }
    local status=0 log=$logs/system.log bad
    child timeout --foreground 900 "$VORN_PYTHON" -m pytest tests/system -q -p no:cacheprovider \
        -W ignore::DeprecationWarning \
        -n "$VORN_JOBS" ${filter:+-k "$filter"} > >(tee "$log") 2>&1 || status=$?
    wait $!
    # Status 5: the filter matches none of these tests.
    [ -z "$filter" ] || [ "$status" != 5 ] || status=0
    bad=$(($(outcome failed "$log") + $(outcome error "$log")))
    [ "$bad" -gt 0 ] || [ "$status" = 0 ] || bad=1
    count system "$(outcome passed "$log")" "$bad"
}

test_fuzz() {
    build_preset fuzz || { count fuzz 0 1; return; }
    local target name log ok=0 bad=0
    for target in build/fuzz/fuzz_*; do
        name=${target##*/}
        [[ -x $target && $name == *"$filter"* ]] || continue
        log=$logs/$name.log
        if child timeout --foreground 120 "$target" -max_total_time="$VORN_FUZZ_SECONDS" -seed=1 \
            -max_len=4096 -len_control=0 -artifact_prefix="$logs/$name-" >"$log" 2>&1; then
            ok=$((ok + 1))
        else
            bad=$((bad + 1))
            echo "$name failed:"
            tail -40 "$log"
        fi
    done
    count fuzz "$ok" "$bad"
}

cmd_test() {
    local suites="" suite before groups="build"
    filter=""
    while [ $# -gt 0 ]; do
        case $1 in
            lint | unit | system | fuzz) suites+=" $1" ;;
            -k) [ $# -ge 2 ] && [ -n "$2" ] || wrong "-k needs a name"; filter=$2; shift ;;
            *) wrong "unknown suite '$1'; did you mean '$(nearest "$1" "${SUITES[@]}")'?" ;;
        esac
        shift
    done
    : "${suites:=${SUITES[*]}}"
    [[ $suites != *system* ]] || groups+=" run gdb"
    # shellcheck disable=SC2086
    need $groups $suites
    mkdir -p "$logs"
    for suite in $suites; do
        say "$suite tests"
        before=$((passed + failed))
        "test_$suite"
        # A suite that ran nothing proves nothing.
        [ -n "$filter" ] || [ $((passed + failed)) -gt "$before" ] || count "$suite" 0 1
    done
    if [ $((passed + failed)) -eq 0 ]; then
        say "no test matches '$filter'"
        failed=1
    fi
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
