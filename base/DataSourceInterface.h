// The table model every list of the settings model is edited through: rows
// counted, cells read and written by column name and row, rows inserted and
// deleted. Cells travel as boost::any holding a std::string.
#pragma once

#include "base/BaseExport.h"

#include <boost/any.hpp>
#include <string>
#include <vector>

namespace Base {

class BASE_EXPORT DataSourceInterface {
public:
    virtual int numberOfRowsInList() const = 0;
    virtual boost::any valueForListColumnRow(const std::string& column, int row) const = 0;
    virtual bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value);
    virtual bool allowsMultipleSelection() const;
    virtual void insertRow(int row);
    virtual void deleteRows(const std::vector<int>& rows);
    virtual bool valueIsValid(const std::string& column, int row) const;

protected:
    // Models are held by value in their owners and never deleted through this interface.
    ~DataSourceInterface() = default;
};

} // namespace Base
