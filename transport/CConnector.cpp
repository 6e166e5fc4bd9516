// SPDX-License-Identifier: Apache-2.0
#include "transport/CConnector.h"

#include "core/logger.h"
#include "transport/CModbusConnectorItself.h"
#include "transport/CRSConnector.h"

CConnector::CConnector(const PortParams& params, const LedPaths& leds) {
    const PortSettings settings = PortSettings::parse(params);
    if (settings.protocol == "modbus") {
        auto modbus = std::make_unique<CModbusConnectorItself>(settings, leds);
        m_modbus = modbus.get();
        m_transport = std::move(modbus);
        MTD_LOG(Debug, "The CConnector is created in the \"Modbus\" mode.");
    } else {
        m_transport = std::make_unique<CRSConnector>(settings, leds);
        MTD_LOG(Debug, "The CConnector is created in as simple UART.");
    }
}

CConnector::CConnector(std::unique_ptr<CTransport> transport) : m_transport(std::move(transport)) {}

CConnector::~CConnector() = default;

int CConnector::WriteBuffer(const unsigned char* buffer, uint16_t length, bool blink) {
    return m_transport->WriteBuffer(buffer, length, blink);
}

int CConnector::ReadBuffer(unsigned char* buffer, uint16_t length, bool blink) {
    return m_transport->ReadBuffer(buffer, length, blink);
}

int CConnector::ReadBufferCycle(unsigned char* buffer, uint16_t length, bool blink, uint32_t timeout_ms) {
    return m_transport->ReadBufferCycle(buffer, length, blink, timeout_ms);
}

bool CConnector::open_device() { return m_transport->open_device(); }

void CConnector::close_device() { m_transport->close_device(); }

int CConnector::FlushBuffers() { return m_transport->FlushBuffers(); }

int CConnector::DrainOutput() { return m_transport->DrainOutput(); }

void CConnector::SetTimeout(uint32_t timeout_ms) { m_transport->SetTimeout(timeout_ms); }

uint32_t CConnector::GetTimeout() const { return m_transport->GetTimeout(); }

bool CConnector::is_open() const { return m_transport->is_open(); }

void CConnector::SetLengthByteMode(int mode) { m_transport->SetLengthByteMode(mode); }

void CConnector::SetAbortFlag(const std::atomic<bool>* flag) { m_transport->SetAbortFlag(flag); }

CModbusConnectorItself* CConnector::modbus() { return m_modbus; }
