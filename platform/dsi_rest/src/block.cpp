// The block writer: a request body from one piece of memory.
#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

class BlockWriter : public MemoryBody {
public:
    explicit BlockWriter(const tarvex_dsi_rest_write_block_arg_t *block)
    {
        if (block != nullptr && block->block_data != nullptr)
            set_body(static_cast<const char *>(block->block_data), block->block_len);
    }
};

BlockWriter *block_writer(RequestContext &ctx, void *arg)
{
    return ctx.stream_of<BlockWriter, tarvex_dsi_rest_write_block_arg_t>(
        &tarvex_dsi_rest_write_block, arg);
}

} // namespace

std::optional<uint64_t> block_length(RequestContext &ctx, void *arg)
{
    return block_writer(ctx, arg)->size();
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_write_block(void *write_callback_arg, char *buffer,
                                                       size_t buffer_length,
                                                       size_t *bytes_written)
{
    *bytes_written = 0;
    return in_request(__func__, [&](RequestContext &ctx) {
        *bytes_written = block_writer(ctx, write_callback_arg)->read(buffer, buffer_length);
        return TARVEX_SUCCESS;
    });
}
