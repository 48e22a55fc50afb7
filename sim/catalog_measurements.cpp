#include <array>

#include <fmt/format.h>

#include "sim/catalog.h"

namespace lm::sim {
namespace {

using T = DataType;

void addCounters(RowList& rows) {
    const std::array<std::string, kEventCount> names{"counter_1ms", "counter_10ms", "counter_100ms",
                                                     "counter_async"};
    for (std::uint8_t event = 0; event < kEventCount; ++event) {
        rows.add(names[event], "Sample counter of the event", T::ulong, "NO_COMPU_METHOD")
            .on(event, SIM_WHOLE(n));
    }
}

void addMeasurementTypes(RowList& rows) {
    const std::array<Model, kTypes.size()> models{
        SIM_WHOLE(n),
        SIM_WHOLE(0 - n),
        SIM_WHOLE(n * 3),
        SIM_WHOLE(n * -7),
        SIM_WHOLE(n * 65537),
        SIM_WHOLE(5 - n * 65537),
        SIM_WHOLE(n * 1073741825),
        SIM_WHOLE(n * -1000003),
        SIM_REAL(real(n % 4096) * 0.25 - 512.0),
        SIM_REAL(real(n % 1000000) * 0.125 - 1000.0),
        SIM_REAL(real(n) * 0.1 - 1000.0),
    };
    std::uint8_t event = kEvent1ms;
    for (std::size_t i = 0; i < kTypes.size(); ++i) {
        for (const ObjectOrder order : {ObjectOrder::lsbFirst, ObjectOrder::msbFirst}) {
            const char* suffix = order == ObjectOrder::lsbFirst ? "lsb" : "msb";
            rows.add(fmt::format("sig_{}_{}", kTypes[i].label, suffix), "Type matrix", static_cast<T>(i),
                     "CM.IDENTICAL")
                .on(event, models[i])
                .order(order);
            event = static_cast<std::uint8_t>((event + 1) % 3);
        }
    }
}

void addFast(RowList& rows) {
    rows.add("crank_angle", "Crank angle", T::uword, "CM.ANGLE")
        .on(kEvent1ms, SIM_WHOLE((n * 13) % 7200))
        .limits(0, 720);
    rows.add("wave", "Triangle wave of the calibrated period, gain and offset", T::float32, "CM.IDENTICAL")
        .on(kEvent1ms, SIM_REAL(p.cal_wave_offset + p.cal_gain * real(tri(n, p.cal_wave_period))));
    rows.add("ignition_angle", "Ignition angle with trim", T::sbyte, "CM.HALF")
        .on(kEvent1ms, SIM_WHOLE(tri(n, 160) - 40 + p.cal_ignition_trim))
        .limits(-64, 63.5);
    rows.add("lambda", "Air ratio", T::ubyte, "CM.LAMBDA")
        .on(kEvent1ms, SIM_WHOLE(10 + tri(n, 160)))
        .limits(0, 10000);
    rows.add("knock_level", "Knock level", T::ubyte, "CM.SQUARE")
        .on(kEvent1ms, SIM_WHOLE(n % 200))
        .limits(0, 60);
    rows.add("injector_state", "State of the injectors", T::ubyte, "CM.SWITCH")
        .on(kEvent1ms, SIM_WHOLE(p.cal_injector))
        .limits(0, 2);
    rows.add("injection_time", "Opening time of the injectors, 0 when they are off", T::ulong, "CM.IDENTICAL")
        .on(kEvent1ms, SIM_WHOLE((p.cal_injector != 0) * (500 + 4 * tri(n, 1000))))
        .attributes("FORMAT \"%8.0\"\nPHYS_UNIT \"us\"\n");
}

void addMedium(RowList& rows) {
    rows.add("engine_speed", "Engine speed around the idle target, 0 without injection", T::uword, "CM.SPEED")
        .on(kEvent10ms, SIM_WHOLE((p.cal_injector != 0) * (p.cal_idle_speed + 8 * tri(n, 500))))
        .limits(0, 16383.75)
        .attributes("DISPLAY_IDENTIFIER nEngine\n");
    rows.add("throttle", "Throttle position", T::ubyte, "CM.PERCENT")
        .on(kEvent10ms, SIM_WHOLE(tri(n, 400)))
        .limits(0, 100);
    rows.add("manifold_pressure", "Manifold pressure with calibrated offset", T::sword, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_WHOLE(4 * tri(n, 2000) - 1000 + p.cal_pressure_offset))
        .attributes("PHYS_UNIT \"hPa\"\n");
    rows.add("torque", "Torque", T::float64, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(p.cal_gain * real(tri(n, 300)) - 20.0));
    rows.add("gear", "Selected gear", T::ubyte, "CM.GEAR")
        .on(kEvent10ms, SIM_WHOLE(div(n, 100) % 8))
        .limits(0, 7);
    rows.add("gear_ratio", "Ratio of the selected gear", T::ubyte, "CM.GEAR_RATIO")
        .on(kEvent10ms, SIM_WHOLE(div(n, 100) % 8))
        .limits(-1, 4);
    rows.add("setpoint_echo", "Twice setpoint_rw", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(2.0 * p.setpoint_rw));
}

void addStatusBits(RowList& rows) {
    rows.add("status_word", "All status bits in one word", T::uword, "CM.HEX").on(kEvent10ms, {});
    rows.add("status_running", "Bit 0 of status_word", T::uword, "CM.ON_OFF")
        .on(kEvent10ms, SIM_WHOLE(p.cal_injector != 0))
        .mask(0x0001, "status_word")
        .limits(0, 1);
    rows.add("status_gear", "Bits 4 to 7 of status_word", T::uword, "CM.GEAR")
        .on(kEvent10ms, SIM_WHOLE(div(n, 100) % 8))
        .mask(0x00F0, "status_word")
        .limits(0, 15);
    rows.add("status_trim", "Bits 8 to 14 of status_word, signed", T::sword, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_WHOLE(tri(n, 200) - 50))
        .mask(0x7F00, "status_word")
        .limits(-64, 63);
}

void addDiagnosisBits(RowList& rows) {
    rows.add("diag_word", "All diagnosis bits in one word", T::ulong, "CM.HEX")
        .on(kEvent100ms, {})
        .order(ObjectOrder::msbFirst);
    rows.add("diag_code", "Middle bits of diag_word", T::ulong, "CM.HEX")
        .on(kEvent100ms, SIM_WHOLE(n * 257))
        .mask(0x00FFFF00, "diag_word")
        .order(ObjectOrder::msbFirst)
        .limits(0, 65535);
    rows.add("diag_active", "Top bit of diag_word", T::ulong, "CM.ON_OFF")
        .on(kEvent100ms, SIM_WHOLE(n % 2))
        .mask(0x80000000, "diag_word")
        .order(ObjectOrder::msbFirst)
        .limits(0, 1);
    rows.add("diag_signed", "Low bits of diag_word, signed", T::slong, "CM.IDENTICAL")
        .on(kEvent100ms, SIM_WHOLE(n))
        .mask(0x0000007E, "diag_word")
        .order(ObjectOrder::msbFirst)
        .limits(-32, 31);
}

void addOddFields(RowList& rows) {
    rows.add("switch_a", "Bit 3 of a byte", T::ubyte, "CM.ON_OFF")
        .on(kEvent1ms, SIM_WHOLE(n % 2))
        .mask(0x08)
        .limits(0, 1);
    rows.add("switch_b", "Bit 7 of the same byte", T::ubyte, "CM.ON_OFF")
        .on(kEvent1ms, SIM_WHOLE(div(n, 2) % 2))
        .mask(0x80, "switch_a")
        .limits(0, 1);
    rows.add("wide_field", "Field inside 64 bits", T::uint64, "CM.IDENTICAL")
        .on(kEvent1ms, SIM_WHOLE(n * 5))
        .mask(0x00FFFFFF00000000)
        .limits(0, 16777215);
    rows.add("wide_signed", "Signed field inside 64 bits, other byte order", T::int64, "CM.IDENTICAL")
        .on(kEvent1ms, SIM_WHOLE(0 - n))
        .mask(0x0000000FFFFF0000)
        .order(ObjectOrder::msbFirst)
        .limits(-524288, 524287);
}

void addHeartbeat(RowList& rows) {
    rows.add("control_alive", "Top bit of cal_control_word, inverted at each occurrence", T::ulong,
             "CM.ON_OFF")
        .on(kEvent1ms, SIM_WHOLE(n % 2))
        .mask(0x80000000, "cal_control_word")
        .limits(0, 1);
    rows.last().toggles = true;
}

void addSlow(RowList& rows) {
    rows.add("coolant_temp", "Coolant temperature", T::ubyte, "CM.TEMP")
        .on(kEvent100ms, SIM_WHOLE(40 + tri(n, 400)))
        .limits(-40, 150);
    rows.add("oil_temp_class", "Class of the oil temperature", T::ubyte, "CM.TEMP_CLASS")
        .on(kEvent100ms, SIM_WHOLE(tri(n, 240)))
        .limits(0, 255);
    rows.add("battery_voltage", "Battery voltage", T::uword, "CM.VOLTAGE")
        .on(kEvent100ms, SIM_WHOLE(1200 + tri(n, 200)))
        .limits(-1, 700);
    rows.add("odometer", "Distance", T::ulong, "CM.IDENTICAL").on(kEvent100ms, SIM_WHOLE(div(n, 10)));
    rows.add("fuel_level", "Fuel level", T::float16, "CM.IDENTICAL")
        .on(kEvent100ms, SIM_REAL(real(n % 400) * 0.25))
        .limits(0, 100);
    rows.add("Engine.Cyl[0].Temp", "Temperature of cylinder 0", T::sword, "CM.TENTH")
        .on(kEvent100ms, SIM_WHOLE(300 + tri(n, 100)))
        .limits(-50, 200);
    rows.add("Engine.Cyl[1].Temp", "Temperature of cylinder 1", T::sword, "CM.TENTH")
        .on(kEvent100ms, SIM_WHOLE(tri(n, 100) - 300))
        .limits(-50, 200);
    rows.add("tooth_number", "Tooth of the crank wheel", T::ubyte, "NO_COMPU_METHOD")
        .on(kEventAsync, SIM_WHOLE(n % 58));
    rows.add("tooth_gap", "Milliseconds to the next tooth", T::uword, "CM.IDENTICAL")
        .on(kEventAsync, SIM_WHOLE(5 + div((n * 2654435761) % 4294967296, 65536) % 46))
        .limits(5, 50);
}

void addSpecial(RowList& rows) {
    rows.add("setpoint_rw", "Measurement that may be written", T::float32, "CM.IDENTICAL")
        .limits(-1000, 1000)
        .initial({0, 1.5})
        .attributes("READ_WRITE\n");
    rows.add("program_id", "Identification in read-only memory", T::ulong, "CM.HEX")
        .place(Place::flash)
        .initial({0x20461201, 0})
        .on(kEvent100ms, {});
    rows.add("virtual_power", "Measurement without an address", T::float32, "CM.IDENTICAL")
        .place(Place::nowhere);
    rows.add("bad_address", "Measurement at an address that the ECU does not have", T::ulong, "CM.IDENTICAL")
        .place(Place::outside)
        .on(kEvent10ms, {});
    rows.add("cylinder_pressure", "Array of four", T::uword, "CM.IDENTICAL")
        .on(kEvent10ms, {})
        .initial({1013, 0})
        .shape("VALUE", "", 4)
        .attributes("MATRIX_DIM 4 1 1\n");
}

/// What the curve, the map and the structure drive and hold.
void addOperatingPoint(RowList& rows) {
    rows.add("rel_load", "Relative load", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(real(tri(n, 640)) * 0.3125))
        .limits(0, 100)
        .attributes("PHYS_UNIT \"%\"\n");
    rows.add("ignition_advance", "Ignition advance of the map, at engine_speed and rel_load", T::float32,
             "CM.IDENTICAL")
        .on(kEvent10ms,
            SIM_REAL(0.5 * grid(p.cal_ignition_map,
                                real((p.cal_injector != 0) * (p.cal_idle_speed + 8 * tri(n, 500))),
                                real(tri(n, 640)) * 0.3125)))
        .limits(-64, 63.5)
        .attributes("PHYS_UNIT \"deg\"\n");
    rows.add("torque_request", "Torque of the curve, at throttle", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(curve(p.cal_torque_curve, real(tri(n, 400)))))
        .limits(-1000, 1000)
        .attributes("PHYS_UNIT \"Nm\"\n");
}

void addArrays(RowList& rows) {
    rows.add("cylinder_torque", "Torque of each cylinder", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, SIM_REAL(0.25 * curve(p.cal_torque_curve, real(tri(n + 50 * i, 400)))))
        .array({4});
    rows.add("cylinder_firing", "Which cylinder fires", T::ubyte, "CM.ON_OFF")
        .on(kEvent10ms, SIM_WHOLE(n % 4 == i))
        .limits(0, 1)
        .array({4});
    rows.add("knock_spectrum", "Knock level by cylinder (first number) and band", T::uword, "CM.IDENTICAL")
        .on(kEvent100ms, SIM_WHOLE((n * 3 + i * 100) % 4096))
        .array({4, 3});
    rows.add("load_by_pointer", "rel_load, at the place that a pointer names", T::float32, "CM.IDENTICAL")
        .on(kEvent10ms, {})
        .limits(0, 100)
        .record({{T::ulong, {0}, Role::pointer, "rel_load"}})
        .attributes("ADDRESS_TYPE PLONG\n")
        .kind(Kind::measurement, 171);
    rows.add("shaft_power", "From torque_request and engine_speed, computed by the tool", T::float64,
             "CM.POWER")
        .place(Place::nowhere)
        .attributes("/begin VIRTUAL torque_request engine_speed\n/end VIRTUAL\n");
}

void addEngineStructure(RowList& rows) {
    Row engine;
    engine.name = "engine";
    engine.description = "Four cylinders and what they share";
    engine.structure = "engine_t";
    engine.event = kEvent10ms;
    addInstance(rows, engine);
}

}  // namespace

std::vector<Row> measurementRows() {
    RowList rows;
    addCounters(rows);
    addMeasurementTypes(rows);
    addFast(rows);
    addMedium(rows);
    addStatusBits(rows);
    addDiagnosisBits(rows);
    addOddFields(rows);
    addSlow(rows);
    addSpecial(rows);
    addOperatingPoint(rows);
    addArrays(rows);
    addEngineStructure(rows);
    addHeartbeat(rows);
    return rows.take();
}

}  // namespace lm::sim
