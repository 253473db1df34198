#!/usr/bin/env bash
# Checks that every translation is complete: the same entries as every
# other, none unfinished, obsolete or empty, and each keeping the source's
# placeholders (%@) and line breaks.
#
#   check_translations.sh FILE.ts...
set -uo pipefail
status=0
fail() { echo "FAIL: $*" >&2; status=1; }

# One "source<TAB>translation<TAB>type" line per message, with line breaks
# inside texts shown as \n.
entries() {
    awk '
        /<message>/ { src = ""; tr = ""; type = ""; in_src = 0; in_tr = 0 }
        /<source>/ { in_src = 1; sub(/.*<source>/, ""); src = "" }
        in_src { line = $0; done = sub(/<\/source>.*/, "", line); src = src (src_started ? "\\n" : "") line; src_started = 1; if (done) { in_src = 0; src_started = 0 } ; next }
        /<translation/ { in_tr = 1; if ($0 ~ /type="/) { type = $0; sub(/.*type="/, "", type); sub(/".*/, "", type) } sub(/.*<translation[^>]*>/, ""); tr = "" }
        in_tr { line = $0; done = sub(/<\/translation>.*/, "", line); tr = tr (tr_started ? "\\n" : "") line; tr_started = 1; if (done) { in_tr = 0; tr_started = 0 } ; next }
        /<\/message>/ { printf "%s\t%s\t%s\n", src, tr, type }
    ' "$1"
}

reference=""
for ts in "$@"; do
    name=$(basename "$ts")
    list=$(entries "$ts")
    [ -n "$list" ] || { fail "$name has no entries"; continue; }
    sources=$(cut -f1 <<<"$list" | sort)
    if [ -z "$reference" ]; then
        reference=$sources refname=$name
    elif [ "$sources" != "$reference" ]; then
        fail "$name and $refname do not have the same entries:"
        diff <(echo "$reference") <(echo "$sources") | sed 's/^/    /' >&2
    fi
    while IFS=$'\t' read -r src tr type; do
        [ -z "$type" ] || fail "$name: '$src' is $type"
        [ -n "$tr" ] || fail "$name: '$src' has no translation"
        [ "$(grep -o '%@' <<<"$src" | wc -l)" == "$(grep -o '%@' <<<"$tr" | wc -l)" ] ||
            fail "$name: '$src' -> '$tr' does not keep its placeholders"
        [ "$(grep -o '\\n' <<<"$src" | wc -l)" == "$(grep -o '\\n' <<<"$tr" | wc -l)" ] ||
            fail "$name: '$src' -> '$tr' does not keep its line breaks"
    done <<<"$list"
    echo "$name: $(wc -l <<<"$list") entries"
done
exit $status
