<#
.SYNOPSIS
    Removes the kestmon print port monitor.
.DESCRIPTION
    Unregisters the monitor, restarts the print spooler and deletes the files that install.ps1 put
    on the machine. Refuses while printers still use its ports, unless -Force is given. The ports
    are gone afterwards: with -KeepPorts their registry keys are saved beside this script first.
.EXAMPLE
    powershell -ExecutionPolicy Bypass -File uninstall.ps1
#>
#Requires -RunAsAdministrator
[CmdletBinding(SupportsShouldProcess)]
param(
    [switch] $Force,
    [switch] $KeepPorts
)

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

$system = [Environment]::SystemDirectory
$program = Join-Path $env:ProgramFiles 'kestmon'
$monitor = 'HKLM:\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon'

$ports = @()
if (Test-Path -LiteralPath "$monitor\Ports") {
    $ports = @(Get-ChildItem -LiteralPath "$monitor\Ports" | ForEach-Object PSChildName)
}
$printers = @(Get-CimInstance -ClassName Win32_Printer | Where-Object { $ports -contains $_.PortName })
if ($printers.Count -gt 0 -and -not $Force) {
    $names = ($printers | ForEach-Object { "$($_.Name) on $($_.PortName)" }) -join ', '
    throw "These printers still use ports of kestmon: $names. Move them to other ports, or use -Force."
}
if (-not $PSCmdlet.ShouldProcess($env:COMPUTERNAME, 'Remove kestmon and restart the spooler')) {
    return
}

if ($KeepPorts -and $ports.Count -gt 0) {
    $saved = Join-Path $PSScriptRoot 'kestmon-ports.reg'
    & reg.exe export 'HKLM\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon\Ports' $saved /y |
        Out-Null
    if ($LASTEXITCODE -ne 0) {
        throw "The ports could not be saved to $saved; nothing was removed."
    }
    Write-Output "The ports are saved in $saved."
}

# The spooler holds the libraries open while it runs.
Stop-Service -Name Spooler -Force
try {
    if (Test-Path -LiteralPath $monitor) {
        Remove-Item -LiteralPath $monitor -Recurse
    }
    foreach ($file in 'kestmon.dll', 'slp64.dll', 'SLPConf.xml', 'SLPConf.xml.new') {
        Remove-Item -LiteralPath (Join-Path $system $file) -ErrorAction SilentlyContinue
    }
    foreach ($file in 'kestmon.dll', 'slp64.dll', 'kestctl.exe', 'SLPConf.xml', 'README.md', 'LICENSE') {
        Remove-Item -LiteralPath (Join-Path $program $file) -ErrorAction SilentlyContinue
    }
} finally {
    Start-Service -Name Spooler
}
Write-Output "kestmon is removed. What you added to '$program' yourself is still there."
