# The SMBIOS values each boot's firmware is given (-smbios) and that its
# guest test expects back. Read by the host script and by the guest tests;
# no commas (QEMU's option syntax) and no quotes inside values.

# qemu-bmc: a plain rack server. One enclosure whose serial equals the
# system's, a family other than ALDERCROFT: no blade, no ALDERCROFT machine.
# A small table, which the firmware places below 1 MiB.
QEMU_BMC_SYS_MANUFACTURER="Qel Test Works"
QEMU_BMC_SYS_PRODUCT="RS 410 test rig"
QEMU_BMC_SYS_VERSION="rev 1.2"
QEMU_BMC_SYS_SERIAL="SN-RACK-0001"
QEMU_BMC_SYS_SKU="SKU-7"
QEMU_BMC_SYS_FAMILY="WILLOWMERE"
QEMU_BMC_CHASSIS_MANUFACTURER="Qel Chassis Co"
QEMU_BMC_CHASSIS_VERSION="chassis v3"
QEMU_BMC_CHASSIS_SERIAL="SN-RACK-0001"
QEMU_BMC_CHASSIS_ASSET="ASSET-42"

# smbios-high: a blade of the ALDERCROFT line. The family says so, and the
# one enclosure's serial differs from the system's. Long OEM strings
# (type 11) make the table too big for the F segment, so the firmware puts
# it at the top of RAM, above 1 MiB.
SMBIOS_HIGH_SYS_MANUFACTURER="Qel Blade Works"
SMBIOS_HIGH_SYS_PRODUCT="BL 30 blade"
SMBIOS_HIGH_SYS_VERSION="S4"
SMBIOS_HIGH_SYS_SERIAL="SN-BLADE-0007"
SMBIOS_HIGH_SYS_SKU="SKU-B"
SMBIOS_HIGH_SYS_FAMILY="ALDERCROFT"
SMBIOS_HIGH_CHASSIS_MANUFACTURER="Qel Blade Chassis"
SMBIOS_HIGH_CHASSIS_VERSION="QB-9 S2"
SMBIOS_HIGH_CHASSIS_SERIAL="SN-CHASSIS-0100"
SMBIOS_HIGH_CHASSIS_ASSET="ASSET-BLADE"
SMBIOS_HIGH_OEM_STRINGS=4   # type 11 strings of 250 characters each

# lockdown: the blade of smbios-high on a kernel in lockdown (integrity),
# which refuses /dev/mem as Secure Boot does: the firmware's tables reach the
# library from /sys/firmware/dmi/tables instead, and the decisions are the
# same as with /dev/mem.
LOCKDOWN_KERNEL_ARGS="lockdown=integrity"
LOCKDOWN_SYS_MANUFACTURER=$SMBIOS_HIGH_SYS_MANUFACTURER
LOCKDOWN_SYS_PRODUCT=$SMBIOS_HIGH_SYS_PRODUCT
LOCKDOWN_SYS_VERSION=$SMBIOS_HIGH_SYS_VERSION
LOCKDOWN_SYS_SERIAL=$SMBIOS_HIGH_SYS_SERIAL
LOCKDOWN_SYS_SKU=$SMBIOS_HIGH_SYS_SKU
LOCKDOWN_SYS_FAMILY=$SMBIOS_HIGH_SYS_FAMILY
LOCKDOWN_CHASSIS_MANUFACTURER=$SMBIOS_HIGH_CHASSIS_MANUFACTURER
LOCKDOWN_CHASSIS_VERSION=$SMBIOS_HIGH_CHASSIS_VERSION
LOCKDOWN_CHASSIS_SERIAL=$SMBIOS_HIGH_CHASSIS_SERIAL
LOCKDOWN_CHASSIS_ASSET=$SMBIOS_HIGH_CHASSIS_ASSET
LOCKDOWN_OEM_STRINGS=$SMBIOS_HIGH_OEM_STRINGS

# watchdog-fire: ALDERCROFT named only in the product name, one enclosure
# with the system's serial: an ALDERCROFT machine, but no blade.
WATCHDOG_FIRE_SYS_MANUFACTURER="Qel Test Works"
WATCHDOG_FIRE_SYS_PRODUCT="QEL ALDERCROFT QC-4 node"
WATCHDOG_FIRE_SYS_VERSION="1"
WATCHDOG_FIRE_SYS_SERIAL="SN-NODE-0003"
WATCHDOG_FIRE_SYS_SKU="SKU-N"
WATCHDOG_FIRE_SYS_FAMILY="CX"
WATCHDOG_FIRE_CHASSIS_MANUFACTURER="Qel Chassis Co"
WATCHDOG_FIRE_CHASSIS_VERSION="QC-4 M1"
WATCHDOG_FIRE_CHASSIS_SERIAL="SN-NODE-0003"
WATCHDOG_FIRE_CHASSIS_ASSET="ASSET-CX"
# The hard-reset watchdog: 5 s, left alone.
WATCHDOG_FIRE_COUNTDOWN=50

# bmcsim: the project's simulated controller (qel-bmcsim) behind the KCS
# interface, through QEMU's external-BMC protocol. Its Get Device ID answer
# (completion code first) and what the identity must decode from it. Byte 15
# is "A": no OEM features, and no probe command is sent for them.
BMCSIM_DEVICE_ID="00 20 81 02 15 51 bf 11 22 33 44 55 01 02 03 41"
BMCSIM_MANUFACTURER_ID="112233"
BMCSIM_PRODUCT_ID="4455"
BMCSIM_VERSION_STRING="IPMIv51 - fw v2.15.01.02.03.41"
BMCSIM_FIRMWARE_VERSION="2.15.01020341"
BMCSIM_FIRMWARE_REVISION="0x0215"
# The hard-reset watchdog left alone in the first boot: 5 s.
BMCSIM_COUNTDOWN=50
# The agent against the simulator: a blade (one enclosure, serials differ;
# not of the ALDERCROFT line, so the identity asks the controller) whose two
# NIC ports are the guest's dummy interface and one more, a configuration
# space with the software watchdog at 300 s. The agent publishes the
# interface's addresses into the configuration space and the PNI records.
BMCSIM_SYS_MANUFACTURER="Qel Blade Works"
BMCSIM_SYS_PRODUCT="BL 34 blade"
BMCSIM_SYS_VERSION="S5"
BMCSIM_SYS_SERIAL="SN-BLADE-0024"
BMCSIM_SYS_SKU="SKU-B4"
BMCSIM_SYS_FAMILY="WILLOWMERE"
BMCSIM_CHASSIS_MANUFACTURER="Qel Blade Chassis"
BMCSIM_CHASSIS_VERSION="QB-9 S3"
BMCSIM_CHASSIS_SERIAL="SN-CHASSIS-0200"
BMCSIM_CHASSIS_ASSET="ASSET-BX"
BMCSIM_NIC1="02:00:00:00:0a:01"
BMCSIM_NIC2="02:00:00:00:0a:02"
BMCSIM_IPV4="192.0.2.10"
BMCSIM_IPV4_HEX="c0 00 02 0a"
BMCSIM_IPV6="2001:db8::10"
BMCSIM_SOFT_WATCHDOG=300

# qemu-sensors: QEMU's BMC with the SDR repository that the host script
# QEMU_SENSORS_SDR (in tests/vm) writes. The raw bytes the guest writes into
# QEMU's sensors (Set Sensor Reading) before reading them, "NUMBER BYTE"
# pairs, and what the full records make of them.
QEMU_SENSORS_SDR=qemu-sdr.sh
QEMU_SENSORS_RAW="1 0x2d 2 0x3c 3 0xbf 4 0x5a 6 0xf6"
# NAME=READING;... for the full records' sensors with a reading.
QEMU_SENSORS_EXPECTED="CPU Temp=45;Fan 1=3000;12V=12.033;CPU Margin=-10"
# NAME=LNC,LC,LNR,UNC,UC,UNR;... as the full records hold them ("-": not readable).
QEMU_SENSORS_THRESHOLDS="CPU Temp=-,-,-,80.000,90.000,100.000;Fan 1=1000.000,500.000,-,-,-,-;12V=-,10.899,-,-,13.104,-;CPU Margin=-,-,-,-5.000,-,-"
QEMU_SENSORS_COUNT=14
