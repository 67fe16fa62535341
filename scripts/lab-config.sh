#!/usr/bin/env bash
# lab-config.sh PERSISTENT_DIR [SEVERITY]: a configuration document for labs
# that logs the core's activity to the console, lets the cloud open
# remote-support sessions (POST /control/sessions on zel-cloud), stages
# updates in the same directory and provisions objects into an emulated
# secure core whose key is 000102...0f at index 1.
set -euo pipefail
dir=$1
severity=${2:-info}
filters=
for service in core ds sv su drmp gnsdk; do
  for category in state webservice supervisor; do
    filters="$filters${filters:+, }{\"service\": \"$service\", \"category\": \"$category\", \"severity\": \"$severity\"}"
  done
done
cat <<JSON
{
  "core": {"persistentPath": "$dir", "temporaryPath": "$dir"},
  "supportView": {"allowRemoteSession": true},
  "softwareUpdate": {"stagingLocation": "$dir/staging.raw"},
  "drmp": {"enableEmulatedSecureCore": true, "emulatedUlpkIndex": 1,
           "emulatedUlpk": "000102030405060708090a0b0c0d0e0f",
           "emulatedSupportedObjectNames": "widevine, playready",
           "readyMarkerFile": "$dir/object_is_ready"},
  "loggers": [{"type": "console", "argument": "stdout", "format": "medium", "filters": [$filters]}]
}
JSON
