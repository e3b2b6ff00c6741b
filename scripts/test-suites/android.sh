#!/usr/bin/env bash
# Checks the Android files that nothing here can build: Android.bp is as
# bpfmt writes it, TEST_MAPPING is valid JSON, and the vendor policy compiles.
# Exits non-zero on a failure.
set -uo pipefail
cd "$(dirname "$0")/../.."

bash scripts/setup-deps.sh blueprint-tools jq checkpolicy m4 selinux-policy-src zstd || exit 1

passed=0
failed=0
check() {
    local what=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
    else
        echo "android: $what FAILED"
        failed=$((failed + 1))
    fi
}

# bpfmt -d exits 0 even when it differs: any output is a failure.
bpfmt_clean() {
    local out
    out=$(bpfmt -d "$1" 2>&1) && [ -z "$out" ] || {
        echo "$out"
        return 1
    }
}
check "bpfmt -d Android.bp" bpfmt_clean Android.bp

check "TEST_MAPPING as JSON" jq empty TEST_MAPPING

# The genrule's awk script must make the log reader's table as CMake does.
same_log_messages() {
    local dir rc
    dir=$(mktemp -d)
    cmake -DIN=logtool/log_lines.tsv -DOUT="$dir/cmake.inc" -P logtool/gen_messages.cmake &&
        awk -f logtool/gen_messages.awk logtool/log_lines.tsv >"$dir/awk.inc" &&
        diff -u "$dir/cmake.inc" "$dir/awk.inc"
    rc=$?
    rm -rf "$dir"
    return $rc
}
check "log_messages.inc from gen_messages.awk" same_log_messages

# The policy compiled by checkpolicy against the kernel's classes and
# permissions (from Debian's reference policy sources), with stand-ins for the
# platform's attributes, init's domain and init_daemon_domain. Each
# file_contexts label becomes a genfscon entry so that its context is checked
# too. The platform's own rules and neverallows need an Android tree.
policy_compiles() {
    local dir flask
    dir=$(mktemp -d)
    flask=selinux-policy-src/policy/flask
    tar --zstd -xf /usr/src/selinux-policy-src.tar.zst -C "$dir" "$flask" || return 1
    flask=$dir/$flask
    {
        cat "$flask/security_classes" "$flask/initial_sids" "$flask/access_vectors"
        printf '%s\n' 'sensitivity s0;' 'dominance { s0 }' 'category c0;' 'level s0:c0;' \
            'mlsconstrain file read ( l1 eq l2 );'
        for a in domain exec_type vendor_file_type file_type data_file_type fs_type proc_type; do
            echo "attribute $a;"
        done
        printf '%s\n' 'type init, domain;' 'type unlabeled, file_type;'
        printf '%s\n' "define(\`init_daemon_domain', \`" \
            'type_transition init $1_exec:process $1;' \
            'allow init $1_exec:file { getattr open read execute map };' \
            'allow init $1:process transition;' \
            'allow $1 $1_exec:file { entrypoint open read execute getattr map };' "')" |
            cat - android/sepolicy/*.te | m4
        printf '%s\n' 'role r;' 'role r types domain;' 'user u roles { r } level s0 range s0 - s0:c0;'
        sed -n 's/^sid \([a-z_0-9]*\).*/sid \1 u:object_r:unlabeled:s0/p' "$flask/initial_sids"
        cat android/sepolicy/genfs_contexts
        awk 'NF { print "genfscon file_contexts /" NR " " $NF }' android/sepolicy/file_contexts
    } >"$dir/policy.conf"
    checkpolicy -M -c 30 -o /dev/null "$dir/policy.conf"
    local rc=$?
    rm -rf "$dir"
    return $rc
}
check "checkpolicy on android/sepolicy" policy_compiles

echo "android: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
