#include "melvo/importers/pcre_pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace melvo {

namespace {

// One match block per thread, grown to the largest pattern seen: the passes call find() once
// per measure, and an allocation per call showed up next to the match itself.
pcre2_match_data* matchDataFor(const pcre2_code* code) {
  thread_local std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> data(
      nullptr, &pcre2_match_data_free);
  thread_local std::uint32_t pairs = 0;
  std::uint32_t needed = 0;
  pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &needed);
  ++needed;
  if (!data || needed > pairs) {
    pairs = needed < 16 ? 16 : needed;
    data.reset(pcre2_match_data_create(pairs, nullptr));
  }
  return data.get();
}

// Whole-file patterns such as "[\s\S]*?</part>" walk millions of characters in one match;
// the default limits would end such a match with an error that reads like "no match". The
// texts are bounded by the importers' size ceilings, so the limits are lifted.
pcre2_match_context* matchContext() {
  struct Context {
    pcre2_match_context* context = pcre2_match_context_create(nullptr);
    pcre2_jit_stack* stack = pcre2_jit_stack_create(32 * 1024, 16 * 1024 * 1024, nullptr);
    Context() {
      pcre2_set_match_limit(context, UINT32_MAX);
      pcre2_set_depth_limit(context, UINT32_MAX);
      pcre2_jit_stack_assign(context, nullptr, stack);
    }
    ~Context() {
      pcre2_jit_stack_free(stack);
      pcre2_match_context_free(context);
    }
  };
  thread_local Context c;
  return c.context;
}

}  // namespace

PcrePattern::PcrePattern(const char* source, unsigned flags) : flags_(flags) {
  std::uint32_t options = 0;
  if (flags & caseless) options |= PCRE2_CASELESS;
  if (flags & multiline) options |= PCRE2_MULTILINE;
  if (flags & utf) options |= PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF;
  int error = 0;
  PCRE2_SIZE offset = 0;
  code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(source), PCRE2_ZERO_TERMINATED, options,
                        &error, &offset, nullptr);
  if (!code_) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(error, message, sizeof message);
    std::fprintf(stderr, "pattern %s does not compile at %zu: %s\n", source,
                 static_cast<std::size_t>(offset), reinterpret_cast<const char*>(message));
    std::abort();
  }
  // Without JIT (some hardened kernels refuse executable memory) the interpreter still works.
  pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE);
}

PcrePattern::~PcrePattern() {
  pcre2_code_free(code_);
}

bool PcrePattern::find(std::string_view subject, Match& match, std::size_t from) const {
  if (from > subject.size()) return false;
  if (subject.data() == nullptr) subject = std::string_view("", 0);
  pcre2_match_data* data = matchDataFor(code_);
  const int rc = pcre2_match(code_, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(),
                             from, 0, data, matchContext());
  if (rc < 0) return false;
  const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(data);
  const std::uint32_t count = pcre2_get_ovector_count(data);
  std::uint32_t groups = 0;
  pcre2_pattern_info(code_, PCRE2_INFO_CAPTURECOUNT, &groups);
  ++groups;
  match.groups.assign(groups, std::string_view());
  for (std::uint32_t g = 0; g < groups && g < count; ++g) {
    if (ov[2 * g] == PCRE2_UNSET) continue;
    match.groups[g] = subject.substr(ov[2 * g], ov[2 * g + 1] - ov[2 * g]);
  }
  match.begin = ov[0];
  match.end = ov[1];
  return true;
}

}  // namespace melvo
