#!/usr/bin/env bash
# The production driver must be a PE32+ EFI boot-service driver for x86-64.
set -euo pipefail
description=$(file -b "$1")
echo "$description"
[[ $description == *"PE32+"* && $description == *"EFI boot service driver"* && $description == *"x86-64"* ]]
