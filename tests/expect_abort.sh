#!/bin/sh
# Usage: expect_abort.sh MESSAGE COMMAND [ARGUMENT...]
# Passes when COMMAND stops through abort() (a failed assertion) and its
# output contains MESSAGE, taken literally.
message=$1
shift
output=$("$@" 2>&1)
status=$?
printf '%s\n' "$output"
if [ "$status" -ne 134 ]; then
  echo "expected the process to abort (status 134), got status $status"
  exit 1
fi
if ! printf '%s\n' "$output" | grep -Fq -- "$message"; then
  echo "expected the message: $message"
  exit 1
fi
