// shpa3api.h - declarations of the telephony card library (libshpa3.so).
//
// The vendor library is closed; this header is written from its documented
// record layouts, constants and operations, and is checked against the
// project's own card simulator (sim/), which exports the same symbols.
// Every layout is pinned with static_asserts for LP64, because the library
// and the daemon exchange these records by pointer.
#ifndef SHPA3API_H
#define SHPA3API_H

#include <cstddef>
#include <cstdint>

typedef uint32_t DWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef uint8_t UCHAR;
typedef int32_t BOOL;
typedef char* PCHAR;
typedef unsigned char* PUCHAR;
typedef void* PVOID;

// ---- event codes in use --------------------------------------------------
enum {
    E_CHG_PcmLinkStatus = 7,
    E_CHG_RcvDTMF = 12,
    E_PROC_RecordMem = 21,
    E_CHG_ChState = 24,
    E_CHG_CIDExBuf = 31,
    E_CHG_FlashCount = 35,
    E_CHG_ToneAnalyze = 37,
    E_SYS_BargeIn = 46,
    E_SYS_NoSound = 47,
    E_CHG_SpyState = 49,
    E_RCV_DSTDChannel = 65,
};

// ---- channel states --------------------------------------------------------
enum {
    S_CALL_STANDBY = 0,
    S_CALL_PICKUPED = 1,
    S_CALL_RINGING = 2,
    S_CALL_TALKING = 3,
    S_CALL_OFFLINE = 8,
    S_CALL_WAIT_ANSWER = 9,
    S_CALL_UNAVAILABLE = 11,
    S_CALL_RECORDING = 128,
    S_CALL_SIGNAL_ERROR = 139,
    S_CALL_FRAME_ERROR = 140,
};

// ---- tones reported by E_CHG_ToneAnalyze -----------------------------------
enum {
    TONE_DIAL = 1,
    TONE_BUSY = 2,
    TONE_RINGBACK = 3,
    TONE_SILENCE_AFTER_RINGBACK = 4,
    TONE_NO_SOUND = 5,
    TONE_VOICE = 6,
};

enum { EVENT_POLLING = 1 };
enum { DST_LCD_MESSAGE_EVENT = 4104 };

// Recording formats of SsmRecToMem / SsmRecToFile.
enum { REC_FORMAT_ALAW = 6, REC_FORMAT_ULAW = 7 };

// Channel types as SsmGetChType reports them.
enum {
    SSM_CH_ANALOG = 3,
    SSM_CH_ISDN_USR = 7,
    SSM_CH_ISDN_NTW = 8,
    SSM_CH_DST = 12,
    SSM_CH_TYPE_20 = 20,  // exists on some cards, not a recording channel
    SSM_CH_TYPE_27 = 27,
};

// ---- records ---------------------------------------------------------------
struct SSM_EVENT {
    WORD wEventCode;
    int32_t nReference;
    DWORD dwParam;
    DWORD dwUser;
    DWORD dwSubReason;
    DWORD dwXtraInfo;
    PVOID pvBuffer;
    DWORD dwBufferLength;
    DWORD dwDataLength;
    DWORD dwEventFlag;
    DWORD dwReserved1;
    int64_t llReserved2;
};
static_assert(sizeof(SSM_EVENT) == 56, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, nReference) == 4, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwParam) == 8, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwUser) == 12, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwSubReason) == 16, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwXtraInfo) == 20, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, pvBuffer) == 24, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwBufferLength) == 32, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwDataLength) == 36, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwEventFlag) == 40, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, dwReserved1) == 44, "SSM_EVENT layout");
static_assert(offsetof(SSM_EVENT, llReserved2) == 48, "SSM_EVENT layout");

struct _EVENT_SET_INFO {
    DWORD dwWorkMode;
    PVOID lpHandlerParam;
    DWORD dwOutCondition;
    DWORD dwOutParamVal;
    DWORD dwUser;
};
static_assert(sizeof(_EVENT_SET_INFO) == 32, "_EVENT_SET_INFO layout");
static_assert(offsetof(_EVENT_SET_INFO, lpHandlerParam) == 8, "_EVENT_SET_INFO layout");
static_assert(offsetof(_EVENT_SET_INFO, dwOutCondition) == 16, "_EVENT_SET_INFO layout");
static_assert(offsetof(_EVENT_SET_INFO, dwOutParamVal) == 20, "_EVENT_SET_INFO layout");
static_assert(offsetof(_EVENT_SET_INFO, dwUser) == 24, "_EVENT_SET_INFO layout");

struct _SSM_VERSION {
    UCHAR ucMajor;
    UCHAR ucMinor;
    WORD usInternal;
    WORD usBuild;
    UCHAR ucRelease;
    UCHAR ucFeature;
};
static_assert(sizeof(_SSM_VERSION) == 8, "_SSM_VERSION layout");
static_assert(offsetof(_SSM_VERSION, usInternal) == 2, "_SSM_VERSION layout");
static_assert(offsetof(_SSM_VERSION, usBuild) == 4, "_SSM_VERSION layout");
static_assert(offsetof(_SSM_VERSION, ucRelease) == 6, "_SSM_VERSION layout");
static_assert(offsetof(_SSM_VERSION, ucFeature) == 7, "_SSM_VERSION layout");

struct tagDST_EVENT {
    DWORD dwEventCode;
    DWORD dwSubReason;
    DWORD dwXtraInfo;
    UCHAR pucBuffer[255];
    DWORD dwDataLength;
};
static_assert(sizeof(tagDST_EVENT) == 272, "tagDST_EVENT layout");
static_assert(offsetof(tagDST_EVENT, pucBuffer) == 12, "tagDST_EVENT layout");
static_assert(offsetof(tagDST_EVENT, dwDataLength) == 268, "tagDST_EVENT layout");

struct tagISDN_CALL_INFO {
    DWORD CallRef;
    DWORD CallSource;  // 1 = incoming
    DWORD Cause;
    char Caller[32];
    char CallerSub[32];
    char Called[32];
    char CalledSub[32];
    char Connect[32];
    char ConnectSub[32];
};
static_assert(sizeof(tagISDN_CALL_INFO) == 204, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, Caller) == 12, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, CallerSub) == 44, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, Called) == 76, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, CalledSub) == 108, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, Connect) == 140, "tagISDN_CALL_INFO layout");
static_assert(offsetof(tagISDN_CALL_INFO, ConnectSub) == 172, "tagISDN_CALL_INFO layout");

// ---- callbacks ---------------------------------------------------------------
typedef int (*PRECRAWDATACALLBACK)(int nCh, unsigned int uSize, unsigned char* pucData,
                                   unsigned short usParam1, unsigned short usParam2);
typedef int (*PDSTCALLBACK)(DWORD dwNum, PCHAR szTime, int nCh, UCHAR ucProcessType,
                            UCHAR ucCmd, WORD wLen, PUCHAR pucData, PVOID pDSTEvent);
typedef int (*PSSMCLEARR2CALLTONEBUF)(int nCh);

// ---- operations --------------------------------------------------------------
extern "C" {
int SsmStartCti(const char* pszConfigFile, const char* pszIndexFile);
int SsmCloseCti(void);
int SsmGetLastErrMsg(char* pszErrMsg);  // caller gives at least 300 bytes
int SsmSetLogAttribute(int nLogType, int nLevel, int nMaxSize, const char* pszLogDir);
int SsmGetDllVersion(_SSM_VERSION* pVersion);
int SsmWaitForEventA(DWORD dwTimeOutMs, SSM_EVENT* pEvent);
int SsmSetEvent(WORD wEvent, int nReference, BOOL bEnable, const _EVENT_SET_INFO* pEventSet);
int SsmGetMaxUsableBoard(void);
int SsmGetMaxCh(void);
int SsmGetChHdInfo(int nCh, int* pnBoardId, int* pnBoardCh);
int SsmGetChType(int nCh);
int SsmGetChState(int nCh);
int SsmClearCallerId(int nCh);
int SsmClearR2callToneBuf(int nCh);  // optional: not in every library version
int SsmRecToMem(int nCh, int nFormat, char* pBuf, DWORD dwBufSize, DWORD dwStartOffset);
int SsmStopRecToMem(int nCh);
int SsmSetRecVolume(int nCh, int nVolume);
int SsmSetRecAGC(int nCh, BOOL bEnable);
int SsmClearRxDtmfBuf(int nCh);
char* SsmGetCallerIdA(int nCh);
int SsmGetLineVoltage(int nCh);
int SsmSetBargeInSens(int nCh, int nSensitivity);
int DTRSetMixerVolume(int nCh, int nGroup, int nInVolume, int nOutVolume);
int SsmStartRecBitFlow(int nCh, PRECRAWDATACALLBACK pfnCallback);
int SsmStopRecBitFlow(int nCh);
int SsmRecToFile(int nCh, const char* pszFile, int nFormat, DWORD dwStartPos, DWORD dwBytes,
                 DWORD dwTime, int nMask);
int SsmStopRecToFile(int nCh);
int DTRSendRawData2A3(int nReserved, PUCHAR pucBuf, int nCh, int nMask, int nEnable,
                      PDSTCALLBACK pfnCallback);
int SpyGetCallInCh(int nCic);
int SpyGetCallOutCh(int nCic);
int SpyGetCalleeId(int nCic, char* pszBuf);  // buffers of 64 bytes
int SpyGetCallerId(int nCic, char* pszBuf);
int SpyGetConId(int nCic, char* pszBuf);
}

#endif
