#!/usr/bin/env bash
# Fails when the translation catalogues and the code do not hold the same
# texts: a text marked in the code that the catalogues lack, or an entry whose
# text the code lost. The catalogues are brought in step on copies, by the
# same command a developer runs (scripts/update-translations), and compared.
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$root"/packaging/translations/*.ts "$work"/
(cd "$root" && scripts/update-translations "$work"/*.ts) || { echo "FAIL: lupdate did not run"; exit 1; }
status=0
# Each entry's source text on one line (a line break inside it written \n).
sources() {
    awk '
        /<source>/ { text = ""; open = 1; sub(/.*<source>/, "") }
        open {
            line = $0
            done = sub(/<\/source>.*/, "", line)
            text = text (text == "" ? "" : "\\n") line
            if (done) { print text; open = 0 }
        }
    ' "$1" | sort
}
for ts in "$root"/packaging/translations/*.ts; do
    name=$(basename "$ts")
    if ! diff -q <(sources "$ts") <(sources "$work/$name") >/dev/null; then
        echo "FAIL: $name is not in step with the code (run scripts/update-translations):"
        diff <(sources "$ts") <(sources "$work/$name") |
            sed -n 's/^</    only in the catalogue:/p; s/^>/    only in the code:/p'
        status=1
    fi
done
[ $status -eq 0 ] && echo "every catalogue holds exactly the code's texts"
exit $status
