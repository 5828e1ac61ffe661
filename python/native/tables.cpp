// SPDX-License-Identifier: Apache-2.0
#include "native/tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "csv.h"

namespace kestrune::python {
namespace {

// NumPy's texts have four bytes for each character, and none of them may be of no width.
constexpr std::size_t kCharacterBytes = 4;

/// The characters of UTF-8 as NumPy keeps them; what is none is replaced.
std::vector<std::uint32_t> charactersOf(const std::string& text) {
    const py::object decoded = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace"));
    if (!decoded) throw py::error_already_set();
    std::vector<std::uint32_t> characters;
    for (py::ssize_t i = 0; i < PyUnicode_GET_LENGTH(decoded.ptr()); ++i)
        characters.push_back(PyUnicode_READ_CHAR(decoded.ptr(), i));
    return characters;
}

/// One column on its way into the rows.
struct Part {
    std::size_t size;  ///< bytes
    std::string format;
    std::vector<std::vector<std::uint32_t>> texts;  ///< of a column of texts
};

Part partOf(const Cells& cells) {
    if (std::holds_alternative<std::vector<std::int32_t>>(cells)) return {sizeof(std::int32_t), "i4", {}};
    if (std::holds_alternative<std::vector<double>>(cells)) return {sizeof(double), "f8", {}};
    if (std::holds_alternative<std::vector<Flag>>(cells)) return {sizeof(Flag), "?", {}};
    Part part{};
    std::size_t widest = 1;
    for (const std::string& text : std::get<std::vector<std::string>>(cells)) {
        part.texts.push_back(charactersOf(text));
        widest = std::max(widest, part.texts.back().size());
    }
    part.size = widest * kCharacterBytes;
    part.format = "U" + std::to_string(widest);
    return part;
}

void write(char* place, const Cells& cells, const Part& part, std::size_t row) {
    std::visit(
        [&](const auto& values) {
            using Value = typename std::decay_t<decltype(values)>::value_type;
            if constexpr (std::is_same_v<Value, std::string>) {
                const std::vector<std::uint32_t>& text = part.texts[row];
                std::memset(place, 0, part.size);
                std::memcpy(place, text.data(), text.size() * kCharacterBytes);
            } else {
                std::memcpy(place, &values[row], sizeof(Value));
            }
        },
        cells);
}

template <typename Value>
Value valueAt(const char* place) {
    Value value;
    std::memcpy(&value, place, sizeof(Value));
    return value;
}

/// A text of so many bytes, as UTF-8; zeros at its end are none of it.
std::string textAt(const char* place, py::ssize_t size) {
    std::vector<Py_UCS4> characters(static_cast<std::size_t>(size) / kCharacterBytes);
    std::memcpy(characters.data(), place, characters.size() * kCharacterBytes);
    while (!characters.empty() && characters.back() == 0) characters.pop_back();
    const auto text = py::reinterpret_steal<py::object>(PyUnicode_FromKindAndData(
        PyUnicode_4BYTE_KIND, characters.data(), static_cast<py::ssize_t>(characters.size())));
    if (!text) throw py::error_already_set();
    return text.cast<std::string>();
}

/// A field of a structured array: its kind and size in bytes as NumPy has them, and where it lies in a row.
struct Field {
    char kind;
    py::ssize_t size;
    std::size_t offset;

    bool isKnown() const { return kind == 'i' ? size == 4 || size == 8 : kind == 'U' || (kind == 'f' && size == 8); }
    void append(std::string& line, const char* row) const {
        const char* const place = row + offset;
        line += ',';
        if (kind == 'f')
            line += measure::csvField(valueAt<double>(place));
        else if (kind == 'U')
            line += measure::csvField(textAt(place, size));
        else
            fmt::format_to(std::back_inserter(line), "{}",
                           size == 4 ? valueAt<std::int32_t>(place) : valueAt<std::int64_t>(place));
    }
};

std::vector<Field> fieldsOf(const py::array& table) {
    std::vector<Field> fields;
    const py::dtype type = table.dtype();
    if (table.ndim() != 1 || type.attr("names").is_none()) throw py::type_error("is no structured array");
    for (const py::handle name : type.attr("names")) {
        const py::tuple entry = type.attr("fields")[name];
        const auto of = entry[0].cast<py::dtype>();
        fields.push_back({of.kind(), of.itemsize(), entry[1].cast<std::size_t>()});
        if (!fields.back().isKnown()) throw py::type_error("has a field of neither number nor text");
    }
    return fields;
}

}  // namespace

std::string csvLines(const std::string& head, const py::array& table) {
    const std::vector<Field> fields = fieldsOf(table);
    std::string lines;
    for (py::ssize_t row = 0; row < table.shape(0); ++row) {
        lines += head;
        for (const Field& field : fields)
            field.append(lines, static_cast<const char*>(table.data()) + row * table.strides(0));
        lines += '\n';
    }
    return lines;
}

py::array tableOf(const std::vector<Column>& columns, std::size_t rows) {
    py::list names, formats, offsets;
    std::vector<Part> parts;
    std::size_t size = 0;
    for (const Column& column : columns) {
        parts.push_back(partOf(column.cells));
        names.append(column.name);
        formats.append(parts.back().format);
        offsets.append(size);
        size += parts.back().size;
    }
    py::array table(py::dtype(names, formats, offsets, static_cast<py::ssize_t>(size)),
                    std::vector<py::ssize_t>{static_cast<py::ssize_t>(rows)});
    char* place = static_cast<char*>(table.mutable_data());
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t k = 0; k < columns.size(); ++k) {
            write(place, columns[k].cells, parts[k], row);
            place += parts[k].size;
        }
    }
    return table;
}

}  // namespace kestrune::python
