#!/bin/sh
# Prints the speed at which the Box emulator serves one synthetic download
# of SIZE bytes (default 1 GiB) on loopback, as curl measures it:
#     tools/box-emulator/bench_download.sh [SIZE] [--https] [--streams N] [--config JSON]
# --streams N: N curl processes at once, each fetching one Range of the file
#              (the last one the remainder); the speed is SIZE over the time
#              from the first start to the last end.
# --config JSON: posted to the control interface's config first, e.g.
#              '{"bandwidth_bps":50000000}' for a distant Box's rate.
set -eu
size=1073741824
streams=1 config= https=
while [ $# -gt 0 ]; do
    case $1 in
        --https) https=1 ;;
        --streams) streams=$2; shift ;;
        --config) config=$2; shift ;;
        *) size=$1 ;;
    esac
    shift
done
here=$(cd "$(dirname "$0")" && pwd)
dir=$(mktemp -d)
pid=
cleanup() { [ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$dir"; }
trap cleanup EXIT INT TERM
tls= curl_tls= scheme=http
if [ -n "$https" ]; then
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
[ -z "$config" ] || curl -sf $curl_tls -X POST "$base/_emulator/config" -d "$config" >/dev/null
start=$(date +%s.%N)
share=$((size / streams))
i=0 pids=
while [ $i -lt "$streams" ]; do
    first=$((i * share)) last=$(((i + 1) * share - 1))
    [ $i -lt $((streams - 1)) ] || last=$((size - 1))
    curl -sf $curl_tls -L -o /dev/null -r "$first-$last" -H 'Authorization: Bearer test-token' \
        -w '%{size_download}\n' "$base/2.0/files/1001/content" >"$dir/got.$i" &
    pids="$pids $!" i=$((i + 1))
done
wait $pids || true
end=$(date +%s.%N)
got=$(cat "$dir"/got.* | awk '{ n += $1 } END { print n }')
[ "$got" -eq "$size" ] || { echo "bench_download: got $got of $size bytes" >&2; exit 1; }
awk -v size="$size" -v s="$start" -v e="$end" -v n="$streams" -v scheme="$scheme" 'BEGIN {
    printf "download of %d bytes over %s in %d stream(s): %.0f bytes/s (%.2f s)\n",
           size, scheme, n, size / (e - s), e - s }'
