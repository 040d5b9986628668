#!/usr/bin/env bash
# The source tree's layers: each folder of src/ includes only its own
# headers and those of the layers below it.
#   base <- values <- page <- runtime <- tags, functions, net, db <- program
set -u
src=$(cd "$(dirname "$0")/../../src" && pwd)
declare -A allowed=(
  [base]="base"
  [values]="base values"
  [page]="base values page"
  [runtime]="base values page runtime"
  [tags]="base values page runtime tags"
  [functions]="base values page runtime functions"
  [net]="base values page runtime net"
  [db]="base values page runtime db"
  [program]="base values page runtime tags functions net db program"
)
status=0
for dir in "$src"/*/; do
  layer=$(basename "$dir")
  if [ -z "${allowed[$layer]+x}" ]; then
    echo "src/$layer: a folder outside the layers"
    status=1
    continue
  fi
  while IFS=: read -r file line include; do
    folder=${include#*\"}
    folder=${folder%%/*}
    case " ${allowed[$layer]} " in
      *" $folder "*) ;;
      *) echo "${file#"$src"/}:$line: $layer includes $folder: $include"; status=1 ;;
    esac
  done < <(grep -n '^#include "[a-z_]*/' "$dir"*.cpp "$dir"*.h 2>/dev/null)
done
[ $status -eq 0 ] && echo "layers: every include goes to the same layer or one below"
exit $status
