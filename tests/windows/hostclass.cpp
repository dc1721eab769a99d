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
    CHECK(base->WriteEventLog(TEXT("zemhttpd test"), 1, -7, TEXT("host.cpp"), 10, TEXT("event %d"),
                              7) == 0);
    CHECK(named.GetResult() == -7);

    // Longer texts are cut, and nothing of the system objects.
    WCHAR many[600];
    for (WCHAR& unit : many)
        unit = u'm';
    many[599] = 0;
    const CHostScope cut(TEXT("%s"), many);
    CHECK(cut.Function()[126] == u'm' && cut.Function()[127] == 0);
    CHECK(scope->LogMsg(TEXT("%s"), many) == 1);
    CHECK(base->LogError(-8, many, 13, TEXT("cut")) == 0);
    CHECK(named.GetFile()[30] == u'm' && named.GetFile()[31] == 0);
    return 0;
}
