#!/usr/bin/env bash
# Makes the fuzz targets' seeds in tests/fuzz/corpus/ from what the project's
# own tools write: a panel from opxpanel, a stick from opxpack, md5sum's report
# on the panel's runtime. Run it again when the formats change, and commit the
# result.
set -euo pipefail
cd "$(dirname "$0")/../tests/fuzz"
source=$(realpath ../..)

(cd "$source" && cmake --preset default >/dev/null)
(cd "$source" && cmake --build --preset default -j "$(nproc)" --target opxupdateu_proj opxupdateu_helper opxpack opxpanel >/dev/null)
tools=$source/build/default/tools
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$tools/opxpanel/opxpanel" --root "$work/panel" --suffix KVP >/dev/null
"$tools/opxpanel/opxpanel" --root "$work/panel5" --arch 5 --runtime-version "7.10.0 build3" --product "" >/dev/null
runtime=$work/panel/usr/kavo_app
"$tools/opxpack/opxpack" --project "$source/examples/sample" --name sample --out "$work/stick" \
    --hw-platform 10,5 --cpu-core 1 --disk-capacity 16 --clear recipe,alarm,userdir \
    --runtime "$runtime" --helper "$source/build/default/helper/opxupdateu_helper.bin" >/dev/null
"$tools/opxpack/opxpack" --project "$source/examples/sample" --name other --out "$work/stick" \
    --platform 5 --set-version 6.9.12 --min-run-version 7.3.0.1 --product KavoStu >/dev/null
project=$work/stick/sample/v7

rm -rf corpus
mkdir -p corpus/{text,package,runtime,scramble,elf,md5sum,unpack}
# Files a target reads together follow each other, each after a line "--8<--".
joined() { cat "$1"; shift; for f in "$@"; do printf '\n--8<--\n'; cat "$f"; done; }

cp "$source/resource/lan/0000.lan" corpus/text/builtin.lan
cp "$work/stick/opxupdateu/config/proUpdateSet.ini" corpus/text/proUpdateSet.ini

joined "$project/project.ini" "$project/version.ini" >corpus/package/sample
joined "$work/stick/other/v5/project.ini" "$work/stick/other/v5/version.ini" >corpus/package/other

joined "$runtime/update.ini" "$project/version.ini" >corpus/runtime/sample
joined "$work/panel5/usr/kavo_app/update.ini" "$work/stick/other/v5/version.ini" >corpus/runtime/other

cp "$work/stick/opxupdateu/config/proUpdate.ini" corpus/scramble/proUpdate.ini
cp "$work/stick/sample/KavoPro/v7/kavo_app/update.ini" corpus/scramble/update.ini

cp "$work/panel/lib/libc.so.6" corpus/elf/armv7
cp "$work/panel5/lib/libc.so.6" corpus/elf/armv5

# The report is read as the command prints it, in the language of this tool.
(cd "$runtime" && LC_ALL=C md5sum -c version.7.2.1 >"$OLDPWD/corpus/md5sum/passed" 2>&1)
echo changed >>"$runtime/config/logger.ini"
echo changed >>"$runtime/bin/kavo_app"
(cd "$runtime" && LC_ALL=C md5sum -c version.7.2.1 >"$OLDPWD/corpus/md5sum/failed" 2>&1) || true

cp "$work/panel/usr/kavo_app/project/#BKCompreProj.bin" corpus/unpack/panel
