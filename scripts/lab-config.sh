#!/usr/bin/env bash
# lab-config.sh PERSISTENT_DIR [SEVERITY]: a configuration document for labs
# that logs the core's activity to the console.
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
  "loggers": [{"type": "console", "argument": "stdout", "format": "medium", "filters": [$filters]}]
}
JSON
