#!/usr/bin/env bash
# Starts the reference gateway (media-gateway) with the HTTP plug-in on its
# defaults and prints curl commands to try it. Ctrl-C stops it cleanly.
#
#   tools/run-gateway.sh <build-dir> [media-gateway options...]
#
# Media folder: <build-dir>/media (a sample recording is generated there on
# first start). Status file: <build-dir>/gateway-status.json, access log:
# <build-dir>/access.log. Port: 8080, or GATEWAY_PORT; the two-way audio channel
# on the next port (GATEWAY_AUDIO_PORT); the admin endpoint (/metrics, /healthz,
# /recordings) on 127.0.0.1:9464 (GATEWAY_ADMIN_PORT); the operator console on
# http://127.0.0.1:8090/ (GATEWAY_CONSOLE_PORT).
# Default user "admin", password "gateway-demo".
set -euo pipefail

build_dir=${1:?usage: $0 <build-dir> [media-gateway options...]}
shift
if [ ! -d "$build_dir" ]; then
    echo "run-gateway: $build_dir is not a build folder; build first (make build)" >&2
    exit 1
fi
build_dir=$(cd "$build_dir" && pwd)  # the printed commands work from any folder
tools=$(cd "$(dirname "$0")" && pwd)
gateway="$build_dir/bin/media-gateway"
plugin="$build_dir/lib/libHttpProtocolWrapper.so"
port=${GATEWAY_PORT:-8080}
audio_port=${GATEWAY_AUDIO_PORT:-$((port + 1))}
admin_port=${GATEWAY_ADMIN_PORT:-9464}
console_port=${GATEWAY_CONSOLE_PORT:-8090}
media="$build_dir/media"
status="$build_dir/gateway-status.json"
access_log="$build_dir/access.log"
device="8c5b1a2e-0f4d-4e7a-9b3c-6d2e1f0a7b41"
sample="sample-0001.bin"
sample_size=3146962
times="starttime=20260101T000000Z&endtime=20260101T001000Z"

for required in "$gateway" "$plugin"; do
    if [ ! -e "$required" ]; then
        echo "run-gateway: $required is missing; build first (make build)" >&2
        exit 1
    fi
done

rm -f "$status"
"$gateway" --port "$port" --audio-port "$audio_port" --media "$media" --sample --status-file "$status" \
    --admin "127.0.0.1:$admin_port" --console "127.0.0.1:$console_port" --access-log "$access_log" "$@" &
pid=$!
# Ctrl-C reaches the gateway too (same process group); TERM from elsewhere is passed on.
trap 'kill -TERM "$pid" 2>/dev/null || true' INT TERM

for _ in $(seq 1 100); do
    if grep -q '"ready":true' "$status" 2>/dev/null; then
        break
    fi
    if ! kill -0 "$pid" 2>/dev/null; then
        wait "$pid" && code=0 || code=$?
        echo "run-gateway: media-gateway stopped at start (exit code $code)" >&2
        exit "$code"
    fi
    sleep 0.1
done

base="http://127.0.0.1:$port/QUMEX/ContentMgmt/download"
json_uri="rtsp://127.0.0.1:554/Streaming/tracks/101/playback?$times&name=$sample&size=$sample_size&devIndex=$device"
xml_uri="rtsp://127.0.0.1:554/Streaming/tracks/101/playback?starttime=20260101T000000Z&amp;endtime=20260101T001000Z&amp;name=$sample&amp;size=$sample_size"
cat <<TEXT

media-gateway is running on port $port, two-way audio on $audio_port (status: $status).
Admin endpoint: http://127.0.0.1:$admin_port/metrics  /healthz  /recordings

Console: http://127.0.0.1:$console_port/  (sign in as admin / gateway-demo: devices, recordings, talk)

Try, from another terminal:

# What the gateway serves, its health, and its counters (run a download, then look again):
curl -s http://127.0.0.1:$admin_port/recordings
curl -i http://127.0.0.1:$admin_port/healthz
curl -s http://127.0.0.1:$admin_port/metrics | grep '^media_gateway_'

# Download the sample recording, JSON form (POST):
curl --digest -u admin:gateway-demo -X POST '$base?format=json&devIndex=$device' \\
  -d '{"downloadRequest":{"playbackURI":"$json_uri"}}' -o out.bin

# The same in the XML form (GET with a body):
curl --digest -u admin:gateway-demo -X GET '$base' \\
  -d '<downloadRequest><playbackURI>$xml_uri</playbackURI></downloadRequest>' -o out-xml.bin

# The body is a 40-byte stream head followed by the recording:
tail -c +41 out.bin | cmp - '$media/$device/$sample' && echo identical

# Resume a broken download: one broken off after 1 MB, then the rest asked for with Range and appended:
curl -s --digest -u admin:gateway-demo -X POST '$base?format=json&devIndex=$device' \\
  -d '{"downloadRequest":{"playbackURI":"$json_uri"}}' | head -c 1000000 > part.bin
curl --digest -u admin:gateway-demo -X POST '$base?format=json&devIndex=$device' \\
  -d '{"downloadRequest":{"playbackURI":"$json_uri"}}' -H "Range: bytes=\$(stat -c %s part.bin)-" >> part.bin
tail -c +41 part.bin | cmp - '$media/$device/$sample' && echo identical

# Or let the download client resume by itself (--no-stream-head writes the recording alone):
python3 '$tools/fetch-recording' --user admin:gateway-demo --device $device --name $sample \\
  --start 20260101T000000Z --end 20260101T001000Z --no-stream-head -o sample.bin http://127.0.0.1:$port
cmp sample.bin '$media/$device/$sample' && echo identical

# Talk to the sample device (channel 1, PCMU): play a sound, record what it plays back
# (make a voice with: espeak-ng -w hello.wav "hello" && sox hello.wav -r 8000 -c 1 -e mu-law voice.wav):
sox -n -r 8000 -c 1 -e mu-law voice.wav synth 3 sine 300-900
python3 '$tools/talk.py' --user admin:gateway-demo --channel 1 --audio-port $audio_port \\
  --send voice.wav --record heard.wav http://127.0.0.1:$port
# What the device heard is kept in $media/$device/talk-ch1-*.wav

# A wrong password is refused with 401 and a badAuthorization document:
curl --digest -u admin:wrong-password -X POST '$base?format=json&devIndex=$device' \\
  -d '{"downloadRequest":{"playbackURI":"$json_uri"}}'

Press Ctrl-C to stop.
TEXT

while true; do
    wait "$pid" && code=0 || code=$?
    # A trapped signal interrupts wait while the gateway is still shutting down.
    if ! kill -0 "$pid" 2>/dev/null; then
        break
    fi
done
exit "$code"
