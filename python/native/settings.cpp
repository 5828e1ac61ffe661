// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>

#include "files/inputs.h"
#include "native/held.h"
#include "native/module.h"
#include "settings/setting_text.h"
#include "settings/settings_reader.h"
#include "stereo_exposure.h"

namespace kestrune::python {
namespace {

namespace py = pybind11;

using Values = std::vector<std::pair<std::string, SettingValue>>;

std::optional<Path> pathOf(const std::optional<std::string>& name) {
    if (!name) return std::nullopt;
    const std::optional<Path> path = pathNamed(*name);
    if (!path) throw InputError("path", fmt::format("'{}' is none of simple, radial, fast, complex, hand", *name));
    return path;
}

std::optional<Use> useOf(const std::optional<std::string>& name) {
    if (!name) return std::nullopt;
    if (*name == "extraction") return Use::extraction;
    if (*name == "stereo") return Use::stereo;
    throw InputError("use", fmt::format("'{}' is neither extraction nor stereo", *name));
}

const char* nameOfUse(Use use) {
    return use == Use::stereo ? "stereo" : "extraction";
}

/// By `read(use)`: for the wanted use, and without one for stereo where that is possible.
template <typename Read>
HeldSettings readFor(const std::optional<Use>& wanted, const std::string& origin, const Read& read) {
    const auto take = [&](Use use) -> HeldSettings {
        HeldSettings held{read(use), use, origin, ""};
        if (use == Use::extraction) return held;
        measure::asStereo(held.settings, origin);  // refuses what stereo cannot work with
        try {
            read(Use::extraction);
        } catch (const InputError& error) {
            held.lacks = error.what();
        }
        return held;
    };
    if (wanted) return take(*wanted);
    try {
        return take(Use::stereo);
    } catch (const InputError&) {
        return take(Use::extraction);
    }
}

HeldSettings readHeld(const std::string& file, const std::optional<std::string>& path,
                      const std::optional<std::string>& use) {
    const YAML::Node fields = parseFields(file, readText(file));
    return readFor(useOf(use), file, [&](Use u) {
        SettingsReader reader(file);
        reader.readAll(fields);
        return reader.finish(pathOf(path), u);
    });
}

/// For both uses, where the settings serve both.
void writeHeld(const HeldSettings& held, const std::string& file) {
    writeSettings(file, held.settings, held.use);
    if (held.use == Use::stereo && held.lacks.empty()) writeSettings(file, held.settings, Use::extraction);
}

/// A scalar of NumPy, or an array without dimensions, as the number of Python that it holds.
py::object plainOf(const py::handle& value) {
    if (py::hasattr(value, "item") && py::hasattr(value, "ndim") && value.attr("ndim").cast<int>() == 0)
        return value.attr("item")();
    return py::reinterpret_borrow<py::object>(value);
}

InputError noValue(const std::string& name, const py::handle& value) {
    return {"settings", fmt::format("field '{}': {} is no value of a setting", name, std::string(py::repr(value)))};
}

double numberOf(const py::handle& value, const std::string& name) {
    const py::object plain = plainOf(value);
    const bool isNumber = !py::isinstance<py::bool_>(plain) && !py::isinstance<py::str>(plain) &&
                          (PyLong_Check(plain.ptr()) != 0 || py::hasattr(plain, "__float__"));
    if (!isNumber || py::hasattr(plain, "__len__")) throw noValue(name, value);
    const double number = PyFloat_AsDouble(plain.ptr());
    if (number == -1 && PyErr_Occurred() != nullptr) throw py::error_already_set();
    return number;
}

/// A value as Python has it. Whole numbers are taken where a number of double precision is asked for.
SettingValue valueOf(const py::handle& given, const std::string& name) {
    const py::object value = plainOf(given);
    if (py::isinstance<py::bool_>(value)) return value.cast<bool>();
    if (py::isinstance<py::str>(value)) return value.cast<std::string>();
    if (PyLong_Check(value.ptr()) != 0) {
        int isTooLarge = 0;
        const long long number = PyLong_AsLongLongAndOverflow(value.ptr(), &isTooLarge);
        if (isTooLarge != 0) throw noValue(name, value);
        return static_cast<std::int64_t>(number);
    }
    const bool isList = py::hasattr(value, "__iter__") && !PyDict_Check(value.ptr()) && !PyBytes_Check(value.ptr());
    if (!isList) return numberOf(value, name);
    std::vector<double> list;
    for (const py::handle entry : py::iter(value)) list.push_back(numberOf(entry, name));
    return list;
}

Values valuesOf(const py::dict& fields) {
    Values values;
    for (const auto& [name, value] : fields) {
        const std::string text = py::str(name);
        values.emplace_back(text, valueOf(value, text));
    }
    return values;
}

HeldSettings makeHeld(const Values& values, const std::optional<std::string>& path,
                      const std::optional<std::string>& use, const std::string& origin) {
    return readFor(useOf(use), origin, [&](Use u) { return settingsOf(values, pathOf(path), u, origin); });
}

const SettingField& fieldOf(const std::string& name) {
    const auto found = std::ranges::find(settingFields(), name, &SettingField::name);
    if (found == settingFields().end()) throw py::attribute_error(fmt::format("settings have no field '{}'", name));
    return *found;
}

py::object valueAt(const CicrleConfigs& configs, const SettingField& field) {
    return std::visit([&](auto member) -> py::object { return py::cast(configs.*member); }, field.member);
}

/// A single-precision number would show digits that nobody wrote: it is the number of its shortest decimals.
py::object shownAt(const CicrleConfigs& configs, const SettingField& field) {
    if (const auto* member = std::get_if<float CicrleConfigs::*>(&field.member))
        return py::float_(std::stod(textOf(configs.*(*member))));
    return valueAt(configs, field);
}

/// The fields that the path reads, and others that hold something.
py::dict dictOf(const HeldSettings& held) {
    static const CicrleConfigs kNothing{};
    py::dict fields;
    for (const SettingField& field : settingFields()) {
        const CicrleConfigs& configs = held.settings.configs;
        const bool isRead = field.isReadBy(held.settings.path, held.use) ||
                            (held.lacks.empty() && field.isReadBy(held.settings.path, Use::extraction));
        if (isRead || textOf(configs, field) != textOf(kNothing, field)) fields[field.name] = shownAt(configs, field);
    }
    return fields;
}

/// The same with other values for some fields. @throws InputError  naming what does not fit, with nothing changed.
HeldSettings replaced(const HeldSettings& held, const py::dict& changes) {
    py::dict fields = dictOf(held);
    for (const auto& [name, value] : changes) {
        const std::string text = py::str(name);
        if (text == "useComplexExtract" || text == "useRadialContours")
            throw InputError(held.origin, fmt::format("field '{}' chooses the path: settings of another path are made "
                                                      "with path=",
                                                      text));
        fields[name] = value;
    }
    return makeHeld(valuesOf(fields), nameOf(held.settings.path), nameOfUse(held.use), held.origin);
}

bool sameSettings(const HeldSettings& a, const HeldSettings& b) {
    return a.settings.path == b.settings.path && a.use == b.use &&
           std::ranges::all_of(settingFields(), [&](const SettingField& field) {
               return textOf(a.settings.configs, field) == textOf(b.settings.configs, field);
           });
}

/// name, type, range, readers, meaning
py::list describedFields() {
    static constexpr std::array kTypes = {"bool", "int", "float", "float", "str", "list"};
    py::list rows;
    for (const SettingField& field : settingFields())
        rows.append(py::make_tuple(field.name, kTypes[field.member.index()], rangeText(field), readersText(field),
                                   field.meaning));
    return rows;
}

}  // namespace

void defineSettings(py::module_& module) {
    py::class_<HeldSettings>(module, "Settings")
        .def(py::init([](const py::dict& fields, const std::optional<std::string>& path,
                         const std::optional<std::string>& use,
                         const std::string& origin) { return makeHeld(valuesOf(fields), path, use, origin); }),
             py::arg("fields"), py::arg("path") = py::none(), py::arg("use") = py::none(),
             py::arg("origin") = "settings")
        .def_static("read", &readHeld, py::arg("file"), py::arg("path") = py::none(), py::arg("use") = py::none(),
                    py::call_guard<py::gil_scoped_release>())
        .def("write", &writeHeld, py::arg("file"), py::call_guard<py::gil_scoped_release>())
        .def("get", [](const HeldSettings& held,
                       const std::string& name) { return shownAt(held.settings.configs, fieldOf(name)); })
        .def("replaced", &replaced)
        .def("to_dict", &dictOf)
        .def_property_readonly("path", [](const HeldSettings& held) { return nameOf(held.settings.path); })
        .def_property_readonly("use", [](const HeldSettings& held) { return nameOfUse(held.use); })

        .def("__eq__", &sameSettings, py::is_operator())
        .def(py::pickle(
            [](const HeldSettings& held) {
                return py::make_tuple(dictOf(held), nameOf(held.settings.path), nameOfUse(held.use),
                                      py::bytes(held.origin));
            },
            [](const py::tuple& state) {
                return makeHeld(valuesOf(state[0]), state[1].cast<std::string>(), state[2].cast<std::string>(),
                                state[3].cast<std::string>());
            }));
    module.def("setting_fields", &describedFields);
}

}  // namespace kestrune::python
