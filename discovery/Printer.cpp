#include "discovery/Printer.h"

Printer::Printer(const Printer& other) {
    *this = other;
}

Printer& Printer::operator=(const Printer& other) {
    if (other.IsValid()) {
        macAddress_ = other.macAddress_;
        ipAddress_ = other.ipAddress_;
        ipAddress2_ = other.ipAddress2_;
        hostName_ = other.hostName_;
        numPorts_ = other.numPorts_;
        modelName_ = other.modelName_;
        description_ = other.description_;
        deviceId_ = other.deviceId_;
    }
    return *this;
}

std::ostream& operator<<(std::ostream& out, const Printer& printer) {
    if (!printer.IsValid()) {
        return out << "Invalid object";
    }
    // No blank before "IPAddress2": readers of the log look for the line as it always was.
    return out << "IPAddress: " << printer.GetFirstIPAddress()
               << "IPAddress2: " << printer.GetSecondIPAddress()
               << " MacAddress: " << printer.GetMacAddress()
               << " HostName: " << printer.GetHostName() << " Gateway: " << printer.GetGateway()
               << " SubnetMask: " << printer.GetSubnetMask()
               << " NumPorts: " << printer.GetNumPorts() << " ModelName: " << printer.GetModelName()
               << " Description: " << printer.GetDescription()
               << " DeviceID: " << printer.GetDeviceId();
}
