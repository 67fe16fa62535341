#!/usr/bin/env bash
# lab-config.sh PERSISTENT_DIR [SEVERITY]: a configuration document for labs
# that logs the core's activity to the console, lets the cloud open
# remote-support sessions (POST /control/sessions on zel-cloud) and stages
# updates in the same directory.
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
  "loggers": [{"type": "console", "argument": "stdout", "format": "medium", "filters": [$filters]}]
}
JSON
