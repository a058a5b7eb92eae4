// What the handles of class devices and siblings do.
#include "neighbours.h"

static void Settle(bool bSettles)
{
    if (bSettles) {
        HostSettle();
    }
}

EmuClassDevice::EmuClassDevice(PDRIVER_OBJECT pDriver, USHORT usNumber, bool bSettles) : m_bSettles(bSettles)
{
    if (!pDriver || !NT_SUCCESS(EmuCreateClassDevice(pDriver, usNumber, &m_pDevice))) {
        m_pDevice = nullptr;
    }
}

void EmuClassDevice::Answer(const EmuReply& answer)
{
    if (m_pDevice) {
        EmuSetAnswer(m_pDevice, &answer);
    }
}

void EmuClassDevice::SetTypematic(USHORT usRate, USHORT usDelayMs)
{
    if (m_pDevice) {
        EmuSetClassTypematic(m_pDevice, usRate, usDelayMs);
    }
}

EmuClassState EmuClassDevice::State() const
{
    EmuClassState state = {};
    if (m_pDevice) {
        EmuGetClassState(m_pDevice, &state);
    }
    return state;
}

void EmuClassDevice::Release()
{
    if (m_pDevice) {
        EmuReleaseHeld(m_pDevice);
        Settle(m_bSettles);
    }
}

void EmuClassDevice::Remove()
{
    if (m_pDevice) {
        EmuRemoveClassDevice(std::exchange(m_pDevice, nullptr));
        Settle(m_bSettles);
    }
}

VOID EmuSibling::Observe(PVOID pContext, ULONG ulModifiers)
{
    auto pSibling = static_cast<EmuSibling*>(pContext);
    std::lock_guard<std::mutex> guard(pSibling->m_Lock);
    pSibling->m_Words.push_back(ulModifiers);
}

NTSTATUS EmuSibling::Arrive(const EmuReply& answer, bool bUnnamed)
{
    if (m_pDevice) {
        return STATUS_SUCCESS;
    }
    if (!m_pDriver) {
        return STATUS_DEVICE_NOT_READY;
    }
    EmuSiblingOptions options = {m_Kind, bUnnamed, Observe, this};
    PDEVICE_OBJECT pDevice;
    NTSTATUS status = EmuCreateSibling(m_pDriver, &options, &pDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_pDevice = pDevice;
    Answer(answer);
    return Publish(true);
}

void EmuSibling::Leave()
{
    if (m_pDevice) {
        EmuRemoveSibling(std::exchange(m_pDevice, nullptr));
        Settle(m_bSettles);
    }
}

NTSTATUS EmuSibling::Publish(bool bPresent)
{
    if (!m_pDevice) {
        return STATUS_DEVICE_NOT_READY;
    }
    NTSTATUS status = EmuPublishSibling(m_pDevice, bPresent);
    Settle(m_bSettles);
    return status;
}

void EmuSibling::Answer(const EmuReply& answer)
{
    if (m_pDevice) {
        EmuSetAnswer(m_pDevice, &answer);
    }
}

void EmuSibling::CancelSlowly(ULONG ulMs)
{
    EmuSetSiblingCancelDelay(m_pDevice, ulMs);
}

void EmuSibling::Release()
{
    if (m_pDevice) {
        EmuReleaseHeld(m_pDevice);
        Settle(m_bSettles);
    }
}

ULONG EmuSibling::Held() const
{
    return m_pDevice ? EmuCountHeld(m_pDevice) : 0;
}

std::vector<ULONG> EmuSibling::TakeWords()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return std::exchange(m_Words, {});
}
