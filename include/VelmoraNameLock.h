// Named reader/writer locks: CNameLock and its scope guard CSmartNameLock.
// Included by Velmora.h; not meant to be included on its own.
#pragma once

class CNameLock;
