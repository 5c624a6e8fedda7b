// The pictures of an Outlook item: attachments that its body names.
#pragma once

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "fileformats/pst/common/msgreader.h"

/**
 * Embeds the attachments that the body names. The bytes of others are not read. Attachments are numbered from 0; one missing
 * number is passed over, two end the pass.
 *
 * @param record its `body` is rewritten, also when a later attachment fails
 * @return 1 or the failure that ended the pass
 */
ternkit::Status ReadMsgAttachments(MessageRecord& record, PstFilterData& filterData, const MsgStorage& message);
