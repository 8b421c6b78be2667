#include "kym/EnvironmentVariable.h"

#include "base/Archiver.h"
#include "base/Coder.h"
#include "base/Unarchiver.h"

#include <algorithm>
#include <cctype>

namespace Kym {

static Base::Coder<EnvironmentVariable> environmentVariableCoder("EnvironmentVariable");
static Base::CollectionCoder<std::vector<EnvironmentVariable>> environmentVariableListCoder("EnvVariableList");

EnvironmentVariable::EnvironmentVariable() : type(AllPlatforms) {}

EnvironmentVariable::EnvironmentVariable(const std::string& name, const std::string& value)
    : name(name), value(value), type(AllPlatforms) {}

EnvironmentVariable::EnvironmentVariable(const std::string& name, PlatformType type) : name(name), type(type) {}

void EnvironmentVariable::encode(Base::Archiver& archiver) {
    archiver.encode(NameKey, name);
    archiver.encode(ValueKey, value);
    archiver.encode(CommentKey, comment);
    archiver.encode(VariableTypeKey, static_cast<int>(type));
}

void EnvironmentVariable::decode(Base::Unarchiver& unarchiver) {
    unarchiver.decode(NameKey, name);
    unarchiver.decode(ValueKey, value);
    unarchiver.decode(CommentKey, comment);
    int storedType = 0;
    unarchiver.decode(VariableTypeKey, storedType);
    type = static_cast<PlatformType>(storedType);
}

EnvVariableListSource::EnvVariableListSource(std::vector<EnvironmentVariable>* list)
    : RecordListSource<EnvironmentVariable>(list) {}

boost::any EnvVariableListSource::valueForListColumnRow(const std::string& column, int row) const {
    if (!mList) return boost::any();
    const EnvironmentVariable& variable = record(row);
    return column == "Name" ? variable.name : variable.value;
}

bool EnvVariableListSource::setValueForListColumnRow(const std::string& column, int row, const boost::any& value) {
    if (!mList) return false;
    const std::string& text = boost::any_cast<const std::string&>(value);
    EnvironmentVariable& variable = record(row);
    (column == "Name" ? variable.name : variable.value) = text;
    mEdited = true;
    return true;
}

bool EnvVariableListSource::valueIsValid(const std::string& column, int row) const {
    const EnvironmentVariable& variable = record(row);
    return column == "Name" ? isValidName(variable.name) : isValidValue(variable.value);
}

bool EnvVariableListSource::isValidName(const std::string& name) {
    if (name.empty()) return true;
    const unsigned char first = static_cast<unsigned char>(name.front());
    if (first == '_' || std::isdigit(first)) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (c == '#' ? i != 0 : !(std::isalnum(c) || c == '_')) return false;
    }
    return true;
}

bool EnvVariableListSource::isValidValue(const std::string& value) {
    return std::count(value.begin(), value.end(), '%') % 2 == 0 &&
           std::count(value.begin(), value.end(), '{') == std::count(value.begin(), value.end(), '}');
}

} // namespace Kym
