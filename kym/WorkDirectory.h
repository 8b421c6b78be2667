// A named working directory offered at launch, and the table model the
// editor shows a list of them through.
#pragma once

#include "kym/EnvironmentVariable.h"
#include "kym/KymExport.h"

#include <string>
#include <vector>

namespace Kym {

class KYM_EXPORT WorkDirectory {
public:
    WorkDirectory() = default;
    WorkDirectory(const WorkDirectory&) = default;
    WorkDirectory& operator=(const WorkDirectory&) = default;
    ~WorkDirectory() = default;

    void encode(Base::Archiver& archiver);
    void decode(Base::Unarchiver& unarchiver);

    std::string name;
    std::string path;
};

// Column "Name" is the display name, any other column the path.
class KYM_EXPORT WorkDirectoryListSource : public RecordListSource<WorkDirectory> {
public:
    explicit WorkDirectoryListSource(std::vector<WorkDirectory>* list = nullptr);

    boost::any valueForListColumnRow(const std::string& column, int row) const override;
    bool setValueForListColumnRow(const std::string& column, int row, const boost::any& value) override;
};

} // namespace Kym
