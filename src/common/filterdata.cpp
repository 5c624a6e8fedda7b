#include "common/filterdata.h"

#include <cstring>
#include <new>

#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/common/filterdata")

PstFilterData::PstFilterData() : tag(kFilterDataTag) {}

PstFilterData* MakeFilterData() {
    PstFilterData* record = new (std::nothrow) PstFilterData;
    if (record != nullptr) {
        TbTrackNew(kTbTrackObject, record, TB_HERE);
    }
    return record;
}

ternkit::Status DestroyFilterData(void* data) {
    if (data == nullptr || std::memcmp(data, &kFilterDataTag, sizeof(kFilterDataTag)) != 0) {
        return ternkit::kOk;
    }
    PstFilterData* record = static_cast<PstFilterData*>(data);
    // Files go before the directory that holds them, the document's own first.
    if (record->documentFormat == ternkit::kFormatHtml && record->useTempFiles == 1) {
        TbFileDelete(record->htmlPath);
    }
    for (std::uint64_t at = 0; at < record->tempFiles.size; ++at) {
        char*& path = record->tempFiles.data[at];
        if (path != nullptr) {
            if (record->useTempFiles == 1) {
                TbFileDeleteNarrow(path);
            }
            TbMemFree(path, TB_HERE);
            path = nullptr;
        }
    }
    if (record->useTempFiles == 1 && record->tempDirectory[0] != 0) {
        RemoveDirectoryW(record->tempDirectory);
    }
    TbTrackDelete(kTbTrackObject, record, TB_HERE);
    delete record;
    return ternkit::kOk;
}
