# Sourced by the shell tests: each check prints "ok" or "FAIL" with its name,
# and finish ends the test with the count.
passed=0 failed=0
pass() { passed=$((passed + 1)); echo "ok   $1"; }
fail() { failed=$((failed + 1)); echo "FAIL $1"; [[ -z ${2-} ]] || printf '     %s\n' "$2"; }
check() { # name command...
    local name=$1; shift
    if "$@"; then pass "$name"; else fail "$name"; fi
}
expect_eq() { # name expected actual
    if [[ $3 == "$2" ]]; then pass "$1"; else fail "$1" "expected [$2], got [$3]"; fi
}
expect_match() { # name regex actual
    if [[ $3 =~ $2 ]]; then pass "$1"; else fail "$1" "[$3] does not match /$2/"; fi
}
expect_no_match() { # name regex actual
    if [[ $3 =~ $2 ]]; then fail "$1" "[$3] matches /$2/"; else pass "$1"; fi
}
finish() {
    echo "$passed passed, $failed failed"
    ((failed == 0))
}
