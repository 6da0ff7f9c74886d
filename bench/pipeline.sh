#!/bin/bash
# An update as an administrator would script it, with curl, sync, ln, mv and either openssl and bsdtar or sha256sum and
# cabextract. usage: pipeline.sh openssl|cabextract URL CA-FILE DEFINITIONS-ROOT
set -euo pipefail

readonly kind=$1 url=$2 ca=$3 root=$4
readonly -a fetch=(curl --fail --silent --show-error --cacert "$ca")

value_of() { # <key>, of the INI file on standard input
    sed -n "s/^$1 *= *\([^[:cntrl:]]*\).*/\1/p"
}

check() { # <file> <SHA-256>
    case $kind in
        openssl) [[ $(openssl dgst -sha256 -r "$1" | cut -d ' ' -f 1) == "$2" ]] ;;
        cabextract) sha256sum --status --check <<<"$2  $1" ;;
    esac
}

unpack() { # <archive> <directory>
    case $kind in
        openssl) bsdtar -x -f "$1" -C "$2" ;;
        cabextract) cabextract -q -d "$2" "$1" ;;
    esac
}

id=$("${fetch[@]}" "$url/antivir-v2-hit.ini" | value_of defId)
[[ $(readlink "$root/active" || true) != "snapshots/$id" ]] || exit 0
info=$("${fetch[@]}" "$url/antivir-v2-c-$id.ini")
stage=$root/snapshots/$id
mkdir -p "$stage"
cab=$stage/$(value_of def.Current.name <<<"$info")
"${fetch[@]}" --output "$cab" "$url/${cab##*/}"
check "$cab" "$(value_of def.Current.SHA256 <<<"$info")"
unpack "$cab" "$stage"
rm "$cab"
for name in antivir-v2.def aivsecon-v2.def; do
    check "$stage/$name" "$(value_of "$name.sha256" <"$stage/antivir-v2.ini")"
done
rm "$stage/antivir-v2.ini"
sync "$stage"/*.def "$stage"
ln -s "snapshots/$id" "$root/active.tmp"
mv -T "$root/active.tmp" "$root/active"
sync "$root"
