// One environment variable that a settings layer sets for a launched CAD
// application, and the table model the editor shows a list of them through.
// RecordListSource holds the row handling that every record table shares.
#pragma once

#include "kym/KymExport.h"

#include "base/DataSourceInterface.h"

#include <algorithm>
#include <boost/any.hpp>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Base {
class Archiver;
class Unarchiver;
}

namespace Kym {

// The platform a variable or an application belongs to; archived as an int.
enum PlatformType : std::int32_t { AllPlatforms = 0, UnixPlatform = 1, WindowsPlatform = 2 };

class KYM_EXPORT EnvironmentVariable {
public:
    static constexpr const char* NameKey = "Name Key";
    static constexpr const char* ValueKey = "Value Key";
    static constexpr const char* CommentKey = "Comment Key";
    static constexpr const char* VariableTypeKey = "Variable Type Key";
    // Reserved: no field carries it, so it is neither written nor read.
    static constexpr const char* NoOverrideKey = "No Override Key";

    EnvironmentVariable();
    EnvironmentVariable(const std::string& name, const std::string& value);
    EnvironmentVariable(const std::string& name, PlatformType type);
    EnvironmentVariable(const EnvironmentVariable&) = default;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = default;
    EnvironmentVariable(EnvironmentVariable&&) noexcept = default;
    EnvironmentVariable& operator=(EnvironmentVariable&&) noexcept = default;
    ~EnvironmentVariable() = default;

    void encode(Base::Archiver& archiver);
    void decode(Base::Unarchiver& unarchiver);

    std::string name;
    std::string value;
    std::string comment;
    PlatformType type;
};

// A table model over a vector owned elsewhere (a store or a record): it
// never owns the records and remembers whether it was edited.
template <class Record>
class KYM_EXPORT RecordListSource : public Base::DataSourceInterface {
public:
    using List = std::vector<Record>;

    explicit RecordListSource(List* list = nullptr) : mList(list) {}
    RecordListSource(const RecordListSource&) = default;
    RecordListSource& operator=(const RecordListSource&) = default;

    void setList(List* list) { mList = list; }
    bool isNull() const { return mList == nullptr; }
    bool isEdited() const { return mEdited; }
    void setEdited(bool edited) { mEdited = edited; }

    int numberOfRowsInList() const override { return mList ? static_cast<int>(mList->size()) : 0; }

    // A negative row appends a default record, any other inserts before it.
    void insertRow(int row) override {
        if (!mList) return;
        if (row < 0) {
            mList->push_back(Record());
        } else {
            if (static_cast<std::size_t>(row) > mList->size()) throw std::out_of_range(rowMessage(row));
            mList->insert(mList->begin() + row, Record());
        }
        mEdited = true;
    }

    // Erases from the highest index down so the lower ones stay valid; an
    // index given twice erases two records, as the editor has always done.
    void deleteRows(const std::vector<int>& rows) override {
        if (!mList) return;
        std::vector<int> sorted(rows);
        std::sort(sorted.begin(), sorted.end());
        std::size_t size = mList->size();
        for (auto it = sorted.rbegin(); it != sorted.rend(); ++it, --size)
            if (*it < 0 || static_cast<std::size_t>(*it) >= size) throw std::out_of_range(rowMessage(*it));
        for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) mList->erase(mList->begin() + *it);
        mEdited = true;
    }

protected:
    ~RecordListSource() = default;

    Record& record(int row) const {
        if (!mList || row < 0 || static_cast<std::size_t>(row) >= mList->size())
            throw std::out_of_range(rowMessage(row));
        return (*mList)[static_cast<std::size_t>(row)];
    }

    std::string rowMessage(int row) const {
        return "row " + std::to_string(row) + " is out of range of a list of " +
               std::to_string(numberOfRowsInList()) + " rows";
    }

    List* mList;
    bool mEdited = false;
};

// Column "Name" is the variable's name, any other column its value.
class KYM_EXPORT EnvVariableListSource : public RecordListSource<EnvironmentVariable> {
public:
    explicit EnvVariableListSource(std::vector<EnvironmentVariable>* list = nullptr);

    boost::any valueForListColumnRow(const std::string& column, int row) const override;
    bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value) override;
    bool valueIsValid(const std::string& column, int row) const override;

    // The rules the editor marks a cell by: a name of letters, digits, "_"
    // and a leading "#", not starting with "_" or a digit; a value with
    // balanced "%" pairs and braces.
    static bool isValidName(const std::string& name);
    static bool isValidValue(const std::string& value);
};

} // namespace Kym
