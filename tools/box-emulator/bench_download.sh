#!/bin/sh
# Prints the speed of one synthetic download of SIZE bytes (default 1 GiB)
# from the Box emulator on loopback, as curl measures it:
#     tools/box-emulator/bench_download.sh [SIZE] [--https]
set -eu
size=${1:-1073741824}
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
pid=
cleanup() { [ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$dir"; }
trap cleanup EXIT INT TERM
tls= curl_tls= scheme=http
if [ "${2:-}" = "--https" ]; then
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$dir/key.pem" -out "$dir/cert.pem" -days 1 -subj /CN=127.0.0.1 \
        -addext subjectAltName=IP:127.0.0.1 2>/dev/null
    tls="--tls-cert $dir/cert.pem --tls-key $dir/key.pem" curl_tls="--cacert $dir/cert.pem"
    scheme=https
fi
python3 "$here/box_emulator.py" --quiet --port 0 --port-file "$dir/port" $tls >/dev/null &
pid=$!
while [ ! -s "$dir/port" ]; do sleep 0.1; done
base=$scheme://127.0.0.1:$(cat "$dir/port")
curl -sf $curl_tls -X POST "$base/_emulator/seed" \
    -d "{\"entries\":[{\"path\":\"/big\",\"size\":$size}]}" >/dev/null
curl -sf $curl_tls -L -o /dev/null -H 'Authorization: Bearer test-token' \
    -w "download of %{size_download} bytes over $scheme: %{speed_download} bytes/s\n" \
    "$base/2.0/files/1001/content"
