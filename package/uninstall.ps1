<#
.SYNOPSIS
    Removes the kestmon print port monitor.
.DESCRIPTION
    Unregisters the monitor, restarts the print spooler and deletes the files that install.ps1 put
    on the machine. Refuses while printers still use its ports, unless -Force is given. The ports
    are gone afterwards, and so is SLPConf.xml: with -KeepPorts both are saved beside this script
    first. To have the ports again, install kestmon, run "reg import kestmon-ports.reg" and restart
    the spooler.
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
$print = 'HKLM:\SYSTEM\CurrentControlSet\Control\Print'
$monitor = "$print\Monitors\kestmon"

$ports = @()
if (Test-Path -LiteralPath "$monitor\Ports") {
    $ports = @(Get-ChildItem -LiteralPath "$monitor\Ports" | ForEach-Object PSChildName)
}
# A printer may have several ports, separated by commas.
$users = @(Get-ChildItem -LiteralPath "$print\Printers" | ForEach-Object {
    foreach ($port in ([string] $_.GetValue('Port')).Split(',')) {
        if ($ports -contains $port.Trim()) {
            "$($_.PSChildName) on $port"
        }
    }
})
if ($users.Count -gt 0 -and -not $Force) {
    throw "These printers still use ports of kestmon: $($users -join '; '). " +
        'Move them to other ports, or use -Force.'
}
if (-not $PSCmdlet.ShouldProcess($env:COMPUTERNAME, 'Remove kestmon and restart the spooler')) {
    return
}

if ($KeepPorts) {
    $configuration = Join-Path $system 'SLPConf.xml'
    if (Test-Path -LiteralPath $configuration) {
        Copy-Item -LiteralPath $configuration -Force `
            -Destination (Join-Path $PSScriptRoot 'kestmon-SLPConf.xml')
    }
    if ($ports.Count -gt 0) {
        & reg.exe export 'HKLM\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon\Ports' `
            (Join-Path $PSScriptRoot 'kestmon-ports.reg') /y | Out-Null
        if ($LASTEXITCODE -ne 0) {
            throw "The ports could not be saved in $PSScriptRoot; nothing was removed."
        }
    }
    Write-Output "Ports and SLPConf.xml are saved in $PSScriptRoot (kestmon-*)."
}

# The spooler holds the libraries open while it runs. Services that hang on it (fax, LPD) stop with
# it, and have to be started again.
$left = @()
$dependents = @((Get-Service -Name Spooler).DependentServices | Where-Object Status -eq 'Running')
Stop-Service -Name Spooler -Force
try {
    Wait-Process -Name spoolsv -Timeout 30 -ErrorAction SilentlyContinue
    if (Test-Path -LiteralPath $monitor) {
        Remove-Item -LiteralPath $monitor -Recurse
    }
    $installed = @(
        'kestmon.dll', 'slp64.dll', 'SLPConf.xml', 'SLPConf.xml.new' |
            ForEach-Object { Join-Path $system $_ }
        'kestmon.dll', 'slp64.dll', 'kestctl.exe', 'SLPConf.xml', 'LICENSE', 'README.md',
        'CHANGELOG.md', 'CONTRIBUTING.md', 'SECURITY.md', 'docs', 'uninstall.ps1' |
            ForEach-Object { Join-Path $program $_ }
    )
    foreach ($path in $installed) {
        if (Test-Path -LiteralPath $path) {
            try {
                Remove-Item -LiteralPath $path -Recurse -Force
            } catch {
                $left += $path
            }
        }
    }
} finally {
    Start-Service -Name Spooler
    foreach ($service in $dependents) {
        Start-Service -Name $service.Name
    }
}
if ($left.Count -gt 0) {
    throw "kestmon is no monitor of the spooler any more, but these files are in use: " +
        "$($left -join ', '). End what uses them (kestctl?) and delete them."
}
if ((Test-Path -LiteralPath $program) -and -not (Get-ChildItem -LiteralPath $program -Force)) {
    Remove-Item -LiteralPath $program -ErrorAction SilentlyContinue
}
Write-Output 'kestmon is removed.'
