<#
.SYNOPSIS
    Installs the kestmon print port monitor, or updates it.
.DESCRIPTION
    Copies kestmon.dll, slp64.dll and SLPConf.xml to the system folder, kestctl with copies of them
    to Program Files\kestmon, registers the monitor with the print spooler, and restarts the
    spooler. Ports that exist stay as they are, and so does an SLPConf.xml that was changed: the new
    one is then put beside it as SLPConf.xml.new.
.EXAMPLE
    powershell -ExecutionPolicy Bypass -File install.ps1
#>
#Requires -RunAsAdministrator
[CmdletBinding(SupportsShouldProcess)]
param()

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

if (-not [Environment]::Is64BitProcess) {
    throw 'Run this with the 64-bit PowerShell: the monitor is a 64-bit library.'
}

$system = [Environment]::SystemDirectory
$program = Join-Path $env:ProgramFiles 'kestmon'
$monitor = 'HKLM:\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon'
$libraries = 'kestmon.dll', 'slp64.dll'
$files = $libraries + 'kestctl.exe', 'SLPConf.xml', 'README.md', 'LICENSE', 'uninstall.ps1'

foreach ($file in $files) {
    if (-not (Test-Path -LiteralPath (Join-Path $PSScriptRoot $file) -PathType Leaf)) {
        throw "$file is missing beside this script: unpack the whole archive first."
    }
}
if (-not $PSCmdlet.ShouldProcess($env:COMPUTERNAME, 'Install kestmon and restart the spooler')) {
    return
}

# The spooler holds the libraries open while it runs.
Stop-Service -Name Spooler -Force
try {
    foreach ($library in $libraries) {
        Copy-Item -LiteralPath (Join-Path $PSScriptRoot $library) -Destination $system -Force
    }
    $shipped = Join-Path $PSScriptRoot 'SLPConf.xml'
    $configuration = Join-Path $system 'SLPConf.xml'
    if (-not (Test-Path -LiteralPath $configuration)) {
        Copy-Item -LiteralPath $shipped -Destination $configuration
    } elseif ((Get-FileHash $shipped).Hash -ne (Get-FileHash $configuration).Hash) {
        Copy-Item -LiteralPath $shipped -Destination "$configuration.new" -Force
        Write-Warning "Kept your $configuration; the one of this release is SLPConf.xml.new beside it."
    }

    New-Item -ItemType Directory -Path $program -Force | Out-Null
    foreach ($file in $files) {
        Copy-Item -LiteralPath (Join-Path $PSScriptRoot $file) -Destination $program -Force
    }

    if (-not (Test-Path -LiteralPath $monitor)) {
        New-Item -Path $monitor | Out-Null
    }
    New-ItemProperty -Path $monitor -Name Driver -Value 'kestmon.dll' -PropertyType String -Force |
        Out-Null
} finally {
    Start-Service -Name Spooler
}

Write-Output 'kestmon is installed. A first port:'
Write-Output "  & '$program\kestctl.exe' port add OFFICE --address 10.1.2.3 --always-print"
