#!/usr/bin/env python3
"""Steps a parameter while a signal is measured, and shows what followed.

    xcplumo-cli -c ../demo.json serve                # prints an address
    python3 step_and_plot.py ADDRESS [PARAMETER VALUE SIGNAL]

The cells (# %%) can be run one by one in an editor that knows them. Without matplotlib the plot is one of characters.
"""
# %% Connect
import sys

from xcplumo_client import Client

address, parameter, value, signal = (sys.argv[1:] + ["cal_idle_speed", "950", "engine_speed"][len(sys.argv) - 2:])[:4]
ecu = Client(address)
before = ecu[parameter]
print(f"{ecu.ecu}: {parameter} = {before}")

# %% Measure one second before the step and one after it
ecu.measure([signal])
times, numbers, stepped = [], [], None
for time, values in ecu.records([signal]):
    times.append(time)
    numbers.append(values[signal])
    if stepped is None and time > times[0] + 1:
        ecu[parameter] = float(value)
        stepped = time
    if stepped is not None and time > stepped + 1:
        break
ecu.stop()
ecu[parameter] = before
print(f"{len(numbers)} values of {signal}, {parameter} stepped to {value} at {stepped:.3f} s")

# %% Plot
try:
    import matplotlib.pyplot as plot
    plot.plot(times, numbers)
    plot.axvline(stepped, linestyle="--")
    plot.xlabel("s")
    plot.ylabel(signal)
    plot.show()
except ImportError:
    rows, columns = 10, 60
    low, high = min(numbers), max(numbers)
    for row in range(rows, -1, -1):
        level = low + (high - low) * row / rows
        line = "".join("#" if numbers[i * len(numbers) // columns] >= level else " " for i in range(columns))
        print(f"{level:10.2f} |{line}")
