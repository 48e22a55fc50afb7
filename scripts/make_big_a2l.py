#!/usr/bin/env python3
"""Writes a large A2L description for measuring how fast it loads.

The same arguments always give the same bytes: about 333 per measurement. Example:
    scripts/make_big_a2l.py --measurements 150000 --conversions 500 big.a2l
"""

import argparse
import random

TYPES = {
    "UBYTE": (0, 255), "SBYTE": (-128, 127), "UWORD": (0, 65535), "SWORD": (-32768, 32767),
    "ULONG": (0, 4294967295), "SLONG": (-2147483648, 2147483647),
    "FLOAT32_IEEE": ("-3.4e+38", "3.4e+38"), "FLOAT64_IEEE": ("-1.7E308", "1.7E308"),
}
MODULES = ["EngineControl", "Transmission", "BatteryManagement", "ThermalSystem", "Chassis", "Exhaust"]
QUANTITIES = ["speed", "torque", "temperature", "pressure", "current", "voltage", "ratio", "state"]
UNITS = ["1/min", "Nm", "degC", "bar", "A", "V", "%", ""]

HEADER = """ASAP2_VERSION 1 71
/begin PROJECT BigProject "Generated for load measurements"
  /begin MODULE BigModule ""
    /begin MOD_COMMON ""
      BYTE_ORDER MSB_LAST
    /end MOD_COMMON
    /begin IF_DATA XCP
      /begin PROTOCOL_LAYER
        0x0101 1000 200 0 0 0 0 0 8 8 BYTE_ORDER_MSB_LAST ADDRESS_GRANULARITY_BYTE
      /end PROTOCOL_LAYER
    /end IF_DATA
"""


def conversion(number):
    return f"""    /begin COMPU_METHOD CM_{number:05d} "Conversion {number}"
      LINEAR "%8.3" "{UNITS[number % len(UNITS)]}"
      COEFFS_LINEAR {(number % 100 + 1) / 1000} {number % 40 - 20}
    /end COMPU_METHOD
"""


def measurement(number, conversions, rng):
    module = rng.choice(MODULES)
    quantity = rng.choice(QUANTITIES)
    data_type = rng.choice(list(TYPES))
    lower, upper = TYPES[data_type]
    method = f"CM_{rng.randrange(conversions):05d}" if conversions else "NO_COMPU_METHOD"
    return f"""    /begin MEASUREMENT {module}.{quantity}_{number:06d}
      "{quantity.capitalize()} number {number} of {module}"
      {data_type} {method} 0 0 {lower} {upper}
      ECU_ADDRESS 0x{0x20000000 + number * 8:08X}
      FORMAT "%8.{number % 4}"
      /begin IF_DATA XCP
        /begin DAQ_EVENT FIXED_EVENT_LIST
          EVENT 0x{number % 16:04X}
        /end DAQ_EVENT
      /end IF_DATA
    /end MEASUREMENT
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--measurements", type=int, default=150_000)
    parser.add_argument("--conversions", type=int, default=500)
    parser.add_argument("file")
    arguments = parser.parse_args()
    rng = random.Random(1)
    with open(arguments.file, "w", encoding="ascii", newline="\n") as out:
        out.write(HEADER)
        for number in range(arguments.conversions):
            out.write(conversion(number))
        for number in range(arguments.measurements):
            out.write(measurement(number, arguments.conversions, rng))
        out.write("  /end MODULE\n/end PROJECT\n")


if __name__ == "__main__":
    main()
