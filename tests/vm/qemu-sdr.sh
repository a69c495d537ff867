#!/usr/bin/env bash
# The SDR repository given to QEMU's BMC for the qemu-sensors boot
# (ipmi-bmc-sim,sdrfile=FILE): its records one after another, as the
# controller serves them. QEMU renumbers the records from 0 in file order
# and sets the SDR version; the IDs and versions written here do not count.
#
#   qemu-sdr.sh OUT
#
# What QEMU's BMC makes of a repository (QEMU 7.2): only compact records
# put a sensor into its table, and only for sensor numbers below 20. Get
# Sensor Reading answers 0xCB for any other sensor number, so a full record
# has a reading only when a compact record names the same sensor number.
# The table holds the raw byte that Set Sensor Reading (0x30) last wrote
# (0 at power-on), scanning as the compact record's initialization byte
# asks (bit 6), and no threshold comparison: a sensor's state bits stay 0.
# So each full threshold record here shares its sensor number with a
# compact record ("... Sense") that makes the sensor exist; the guest sets
# the raw bytes (QEMU_SENSORS_RAW in guest/boots.sh) and both readers
# convert them with the full record's factors.
set -euo pipefail
out=${1:?usage: qemu-sdr.sh OUT}

# Bytes as hex words, written as binary.
emit() {
  local b
  for b in "$@"; do printf '%b' "\\x$b"; done
}
# The ID string: type/length byte (8-bit ASCII) and the characters.
id_string() {
  local name=$1 i
  [ "${#name}" -le 16 ] || { echo "qemu-sdr.sh: ID string '$name' longer than 16" >&2; exit 1; }
  printf '%02x ' $((0xc0 | ${#name}))
  for ((i = 0; i < ${#name}; i++)); do printf '%02x ' "'${name:i:1}"; done
}
hex() { printf '%02x' $(($1 & 255)); }

# compact NUMBER ENTITY INIT SENSOR-TYPE READING-TYPE UNITS1 BASE-UNIT
#         DISCRETE-MASK-LO NAME
# A compact sensor record owned by the BMC (0x20, LUN 0): no thresholds, no
# sharing, assertion and deassertion masks as the discrete mask says.
compact() {
  local num=$1 entity=$2 init=$3 type=$4 rtype=$5 units1=$6 unit=$7 dmask=$8 name=$9 ids
  ids=$(id_string "$name")
  # shellcheck disable=SC2086
  emit 00 00 51 02 "$(hex $((27 + ${#name})))" \
    20 00 "$(hex "$num")" "$(hex "$entity")" 01 "$(hex "$init")" 00 "$(hex "$type")" "$(hex "$rtype")" \
    "$(hex "$dmask")" 00 "$(hex "$dmask")" 00 "$(hex "$dmask")" 00 \
    "$(hex "$units1")" "$(hex "$unit")" 00 \
    00 00 00 00 00 00 00 00 $ids
}

# full NUMBER ENTITY SENSOR-TYPE UNITS1 BASE-UNIT M R-EXP READABLE-MASK
#      UNR UC UNC LNR LC LNC NAME
# A linear full threshold record owned by the BMC: reading = M * raw *
# 10^R-EXP (B = 0), the thresholds given as raw bytes, readable as the mask
# says (bits 0..5: lnc lc lnr unc uc unr).
full() {
  local num=$1 entity=$2 type=$3 units1=$4 unit=$5 m=$6 rexp=$7 readable=$8
  local unr=$9 uc=${10} unc=${11} lnr=${12} lc=${13} lnc=${14} name=${15} ids
  ids=$(id_string "$name")
  # shellcheck disable=SC2086
  emit 00 00 51 01 "$(hex $((43 + ${#name})))" \
    20 00 "$(hex "$num")" "$(hex "$entity")" 01 67 04 "$(hex "$type")" 01 \
    00 00 00 00 "$(hex "$readable")" 00 \
    "$(hex "$units1")" "$(hex "$unit")" 00 00 \
    "$(hex "$m")" "$(hex $(((m >> 2) & 0xc0)))" 00 00 00 "$(hex $(((rexp & 15) << 4)))" \
    00 00 00 00 ff 00 \
    "$(hex "$unr")" "$(hex "$uc")" "$(hex "$unc")" "$(hex "$lnr")" "$(hex "$lc")" "$(hex "$lnc")" \
    00 00 00 00 00 $ids
}

{
  # QEMU's own default record: the watchdog, sensor 0 (Watchdog 2, 0x6F).
  emit 00 00 51 02 23 20 00 00 23 01 63 00 23 6f 0f 01 \
    00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 c8 \
    57 61 74 63 68 64 6f 67
  # Sensor 1: a CPU temperature, degrees C (1), upper thresholds 80/90/100.
  compact 1 3 0x63 0x01 0x01 0x00 1 0 "CPU Temp Sense"
  full 1 3 0x01 0x00 1 1 0 0x38 100 90 80 0 0 0 "CPU Temp"
  # Sensor 2: a fan, RPM (18), 50 RPM a count, lower thresholds 500/1000.
  compact 2 29 0x63 0x04 0x01 0x00 18 0 "Fan 1 Tach"
  full 2 29 0x04 0x00 18 50 0 0x03 0 0 0 0 10 20 "Fan 1"
  # Sensor 3: 12 V, Volts (4), 0.063 V a count (M 63, R -3).
  compact 3 7 0x63 0x02 0x01 0x00 4 0 "12V Sense"
  full 3 7 0x02 0x00 4 63 -3 0x12 0 208 0 0 173 0 "12V"
  # Sensor 4: a power supply's discrete status (0x08, sensor-specific).
  compact 4 10 0x63 0x08 0x6f 0x00 0 0x0f "PSU 1 Status"
  # Sensor 5: a fan whose scanning is off from the start.
  compact 5 29 0x20 0x04 0x01 0x00 18 0 "Fan 2 Tach"
  full 5 29 0x04 0x00 18 50 0 0x03 0 0 0 0 10 20 "Fan 2"
  # Sensor 6: a temperature margin, two's complement (units 1 0x80), its
  # upper non-critical threshold at -5.
  compact 6 3 0x63 0x01 0x01 0x80 1 0 "CPU Margin Sense"
  full 6 3 0x01 0x80 1 1 0 0x08 0 0 0xfb 0 0 0 "CPU Margin"
  # Sensor 10: a full record alone, which QEMU's BMC does not know.
  full 10 55 0x01 0x00 1 1 0 0x10 0 45 0 0 0 0 "Inlet Temp"
  # Sensor 25: a compact record past QEMU's table of 20 sensors.
  compact 25 23 0x63 0x05 0x6f 0x00 0 0x01 "Intrusion"
} > "$out"
