#!/usr/bin/env bash
# stage.sh CMAKE BUILD_DIR STAGE: installs below the folder STAGE, which is made anew, for the tests of what is installed.
set -euo pipefail
rm -rf "$3"
"$1" --install "$2" --prefix "$3" >/dev/null
# Nothing may be found by the way that it has in the build folder.
for file in "$3"/bin/* "$3"/sbin/* "$3"/lib/*/*.so "$3"/lib/*/zemhttpd/*.so; do
    path=$(readelf -d "$file" | sed -n 's/.*R\(UN\)\?PATH.*\[\(.*\)\]/\2/p')
    for entry in ${path//:/ }; do
        [[ $entry == '$ORIGIN'* ]] || { printf '%s looks for libraries in %s\n' "$file" "$entry"; exit 1; }
    done
done
