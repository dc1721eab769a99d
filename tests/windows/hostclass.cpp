// Compiled by clang++ for the platform's usual compiler: every name of the class that this refers
// to is one that a host imports.
#include "tests/windows/hostclass.h"

namespace {

bool Same(const WCHAR* a, const WCHAR* b) {
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

#define CHECK(condition) \
    if (!(condition)) return __LINE__

}  // namespace

int UseAsHost() {
    CHostScope::CheckLayout();
    CHostScope plain;
    CHECK(Same(plain.Function(), TEXT("")) && plain.GetResult() == 0 && plain.GetLine() == -1);

    CHostScope named(TEXT("CHost::Part%d %s"), 7, TEXT("of nine"));
    CHECK(Same(named.Function(), TEXT("CHost::Part7 of nine")));
    const CHostScope copy(named);
    CHECK(Same(copy.Function(), named.Function()));
    plain = copy;
    CHECK(Same(plain.Function(), named.Function()));

    // Through the base, so that the table of operations is used.
    CEntryPointException* const base = &named;
    CHECK((named = 5L, named.GetResult() == 5 && named.ChainId() == 5));
    CHECK(base->LogError(-5, TEXT("d:\\src\\host.cpp"), 12, TEXT("%d of %s"), 3, TEXT("x")) == 0);
    CHECK(named.GetResult() == -5 && named.IsLogged() && named.GetLine() == 12);
    CHECK(Same(named.GetFile(), TEXT("host.cpp")));
    CHECK(base->LogEntryPoint() == 0);
    CEntryPoint* const scope = &named;
    CHECK(scope->LogMsg(TEXT("message %d"), 1) == 1);
    CHECK(scope->LogWarning(TEXT("warning %d"), 2) == 1);
    CHECK(scope->Trace(TEXT("trace %d"), 3) == 1);
    CHECK(scope->LogOwnerInfo(4, TEXT("a"), TEXT("b"), TEXT("c"), TEXT("d"), 5) == 1);
    CHECK(base->WriteEventLog(TEXT("zemhttpd test"), 4, 0, TEXT("host.cpp"), 9, TEXT("event %d"),
                              6) == 0);
    return 0;
}
