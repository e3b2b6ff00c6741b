# log_lines.tsv -> log_messages.inc for Android's build, which has no CMake:
# the same output as gen_messages.cmake (scripts/test-suites/android.sh
# compares the two).
BEGIN {
    FS = "\t"
    level["HIGH"] = "High"; level["ERR"] = "Err"; level["MED"] = "Med"; level["LOW"] = "Low"
    print "// Generated from log_lines.tsv by gen_messages.cmake."
}
/^#/ || $0 == "" { next }
$1 !~ /^[a-z_0-9]+$/ || $2 !~ /^[a-z_]+$/ || !($3 in level) || NF < 4 {
    print "log_lines.tsv: a row is not KEY<TAB>FUNCTION<TAB>LEVEL<TAB>FORMAT: " $0 > "/dev/stderr"
    failed = 1
    exit 1
}
{
    format = $0
    sub(/^[^\t]*\t[^\t]*\t[^\t]*\t/, "", format)
    printf "ZLOG_MESSAGE(%s, \"%s\", %s, \"%s\")\n", $1, $2, level[$3], format
}
END { if (failed) exit 1 }
