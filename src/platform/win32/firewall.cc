#include "platform/firewall.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/ascii_case.h"
#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <netfw.h>
#include <oleauto.h>

namespace talvorn::platform {
namespace {

template <class Interface>
class ComPointer {
 public:
  ComPointer() = default;
  ~ComPointer() {
    if (pointer_ != nullptr) pointer_->Release();
  }
  ComPointer(const ComPointer&) = delete;
  ComPointer& operator=(const ComPointer&) = delete;

  [[nodiscard]] Interface** Receive() { return &pointer_; }
  [[nodiscard]] void** ReceiveAny() { return reinterpret_cast<void**>(&pointer_); }
  Interface* operator->() const { return pointer_; }
  explicit operator bool() const { return pointer_ != nullptr; }

 private:
  Interface* pointer_ = nullptr;
};

class ComLibrary {
 public:
  ComLibrary() : started_(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {}
  ~ComLibrary() {
    if (started_) CoUninitialize();
  }
  ComLibrary(const ComLibrary&) = delete;
  ComLibrary& operator=(const ComLibrary&) = delete;

 private:
  bool started_;
};

// What `get` of the rule says; empty when it says nothing.
std::u16string TextOf(INetFwRule& rule, HRESULT (STDMETHODCALLTYPE INetFwRule::*get)(BSTR*)) {
  BSTR text = nullptr;
  if (FAILED((rule.*get)(&text)) || text == nullptr) return {};
  std::u16string copy = FromNative(text, SysStringLen(text));
  SysFreeString(text);
  return copy;
}

template <class Value>
Value ValueOf(INetFwRule& rule, HRESULT (STDMETHODCALLTYPE INetFwRule::*get)(Value*)) {
  Value value{};
  (void)(rule.*get)(&value);
  return value;
}

bool IsOurs(std::u16string_view program) {
  constexpr std::u16string_view kLocator = u"\\talvorn-locator.exe";
  return program.size() >= kLocator.size() &&
         EqualsIgnoringCase(program.substr(program.size() - kLocator.size()), kLocator);
}

// "4817", "80,4817", "4800-4900" or "*"; empty: every port.
bool HoldsPort(std::u16string_view ports, std::uint16_t port) {
  if (ports.empty() || ports == u"*") return true;
  const auto number = [](std::u16string_view text) {
    std::uint32_t value = 0;
    for (const char16_t c : text) {
      if (c < u'0' || c > u'9') return ~std::uint32_t{0};
      value = std::min<std::uint32_t>(value * 10 + (c - u'0'), 1'000'000);
    }
    return text.empty() ? ~std::uint32_t{0} : value;
  };
  while (!ports.empty()) {
    const std::u16string_view one = ports.substr(0, ports.find(u','));
    ports.remove_prefix(std::min(one.size() + 1, ports.size()));
    const std::size_t dash = one.find(u'-');
    const std::uint32_t first = number(one.substr(0, dash));
    const std::uint32_t last = dash == one.npos ? first : number(one.substr(dash + 1));
    if (port >= first && port <= last && last != ~std::uint32_t{0}) return true;
  }
  return false;
}

// What the rules that are about the locator's incoming datagrams do.
struct Sum {
  bool allowed = false;
  std::u16string blockedBy{};  // name of a rule; empty: none
};

void Take(INetFwRule& rule, std::uint16_t port, long profiles, Sum& sum) {
  constexpr LONG kUdp = 17;
  constexpr LONG kAny = 256;
  const LONG protocol = ValueOf<LONG>(rule, &INetFwRule::get_Protocol);
  const bool applies =
      ValueOf<VARIANT_BOOL>(rule, &INetFwRule::get_Enabled) != VARIANT_FALSE &&
      ValueOf<NET_FW_RULE_DIRECTION>(rule, &INetFwRule::get_Direction) == NET_FW_RULE_DIR_IN &&
      (ValueOf<LONG>(rule, &INetFwRule::get_Profiles) & profiles) != 0 &&
      (protocol == kUdp || protocol == kAny);
  if (!applies) return;
  const std::u16string program = TextOf(rule, &INetFwRule::get_ApplicationName);
  if (!program.empty() && !IsOurs(program)) return;
  const std::u16string ports = TextOf(rule, &INetFwRule::get_LocalPorts);
  if (!HoldsPort(ports, port)) return;
  if (ValueOf<NET_FW_ACTION>(rule, &INetFwRule::get_Action) == NET_FW_ACTION_ALLOW) {
    sum.allowed = true;
  } else if (!program.empty() || !ports.empty()) {
    sum.blockedBy = TextOf(rule, &INetFwRule::get_Name);
    if (sum.blockedBy.empty()) sum.blockedBy = u"without a name";
  }
}

bool TakeAll(INetFwPolicy2& policy, std::uint16_t port, long profiles, Sum& sum) {
  ComPointer<INetFwRules> rules;
  ComPointer<IUnknown> unknown;
  ComPointer<IEnumVARIANT> all;
  if (FAILED(policy.get_Rules(rules.Receive())) || !rules ||
      FAILED(rules->get__NewEnum(unknown.Receive())) || !unknown ||
      FAILED(unknown->QueryInterface(__uuidof(IEnumVARIANT), all.ReceiveAny())) || !all)
    return false;
  VARIANT entry;
  VariantInit(&entry);
  for (ULONG taken = 0; all->Next(1, &entry, &taken) == S_OK && taken == 1;) {
    ComPointer<INetFwRule> rule;
    if (entry.vt == VT_DISPATCH && entry.pdispVal != nullptr &&
        SUCCEEDED(entry.pdispVal->QueryInterface(__uuidof(INetFwRule), rule.ReceiveAny())))
      Take(**rule.Receive(), port, profiles, sum);
    VariantClear(&entry);
  }
  return true;
}

struct Profile {
  NET_FW_PROFILE_TYPE2 type;
  std::string_view name;
};
constexpr std::array<Profile, 3> kProfiles = {{{NET_FW_PROFILE2_DOMAIN, "domain"},
                                               {NET_FW_PROFILE2_PRIVATE, "private"},
                                               {NET_FW_PROFILE2_PUBLIC, "public"}}};

void AddObstacles(INetFwPolicy2& policy, const Profile& profile, const Sum& sum,
                  std::vector<FirewallObstacle>& obstacles) {
  VARIANT_BOOL on = VARIANT_FALSE;
  VARIANT_BOOL blocksAll = VARIANT_FALSE;
  NET_FW_ACTION otherwise = NET_FW_ACTION_ALLOW;
  if (FAILED(policy.get_FirewallEnabled(profile.type, &on)) || on == VARIANT_FALSE) return;
  (void)policy.get_BlockAllInboundTraffic(profile.type, &blocksAll);
  (void)policy.get_DefaultInboundAction(profile.type, &otherwise);
  const std::string where = std::string(" (profile ").append(profile.name).append(")");
  if (blocksAll != VARIANT_FALSE) {
    obstacles.push_back({"the firewall blocks everything that comes in" + where,
                         "Allow what rules allow, in the firewall's settings of this profile."});
  } else if (!sum.blockedBy.empty()) {
    obstacles.push_back({"the rule \"" + WideToUtf8(sum.blockedBy) +
                             "\" of the firewall blocks the locator" + where,
                         "Remove this rule; the system has made it when somebody closed its "
                         "question at the first start."});
  } else if (otherwise == NET_FW_ACTION_BLOCK && !sum.allowed) {
    obstacles.push_back({"no rule of the firewall lets the devices' answers in" + where,
                         "Add a rule that allows incoming UDP for talvorn-locator.exe."});
  }
}

}  // namespace

// What goes out is kept by no rule that the system has by itself.
FirewallExamination ExamineFirewall(std::uint16_t port, bool /*withTcp*/) {
  FirewallExamination examination;
  const ComLibrary library;
  ComPointer<INetFwPolicy2> policy;
  long current = 0;
  Sum sum;
  if (FAILED(CoCreateInstance(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER,
                              __uuidof(INetFwPolicy2), policy.ReceiveAny())) ||
      !policy || FAILED(policy->get_CurrentProfileTypes(&current)) ||
      !TakeAll(**policy.Receive(), port, current, sum))
    return examination;
  examination.readable = true;
  for (const Profile& profile : kProfiles)
    if ((current & profile.type) != 0)
      AddObstacles(**policy.Receive(), profile, sum, examination.obstacles);
  return examination;
}

}  // namespace talvorn::platform
