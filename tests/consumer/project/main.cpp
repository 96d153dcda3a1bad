// A host in miniature: it links the installed library and uses its exported names.
#include <Velmora.h>

#include <cstdio>

int main() {
    if (!Report_Types::STR[22] || !OrderTag_Types::STR[9]) return 1;
    // A log client of the stand-in, through the exported service object's table.
    CQuorelLog* pLog = velmora.GetLogClient("consumer", true, false, false);
    if (!pLog) return 2;
    pLog->Log("[Debug]", "a record from the consumer");
    pLog->Close();
    printf("consumer: %s %s\n", Report_Types::STR[22], OrderTag_Types::STR[9]);
    return 0;
}
